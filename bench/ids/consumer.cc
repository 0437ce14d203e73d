// What an alert costs the thread that receives it, in that thread's own processor time: the engine's thread
// against one that only receives and parses, and the limiter with few attackers against many.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <vector>

#include "app/ctxteng/idsevents/alert_socket.h"
#include "app/ctxteng/idsevents/ids_counters.h"
#include "app/ctxteng/idsevents/intake.h"
#include "app/ctxteng/idsqueue/interruption.h"
#include "app/ctxteng/idsrecord/json_line.h"
#include "bench/ids/bench_ids.h"
#include "sim/ids/detection_process.h"

namespace zem::bench {
namespace {

using namespace IdsEvtEng;

constexpr int kAlerts = 60000;
constexpr size_t kReceived = 65536;

double ThreadSeconds() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Sends all the lines to `path` as soon as somebody listens there.
void SendAll(const std::string& path, const std::vector<std::string>& lines) {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const auto* const to = reinterpret_cast<const sockaddr*>(&address);
  for (size_t i = 0; i < lines.size();) {
    if (::sendto(fd, lines[i].data(), lines[i].size(), 0, to, sizeof(address)) >= 0) {
      ++i;
    } else {
      std::this_thread::yield();
    }
  }
  ::close(fd);
}

double Ours(const std::string& path, const std::vector<std::string>& lines) {
  IdsParam param;
  param.idsSocketName = path;
  param.idsSocketRecvLen = kReceived;
  param.criticalQSize = 65534;
  param.rateLimitThresholdCrit = kAlerts;
  IdsCounters counters;
  PlainServices services;
  Interruption interruption;
  const CaptureFiles files("/nowhere", interruption);
  Intake intake(param, files, counters);
  LineQueue log_lines(10);
  AlertSocket socket(param, intake, log_lines, services, interruption);
  double seconds = 0;
  std::thread receiver([&] {
    const double begin = ThreadSeconds();
    socket.Run();
    seconds = ThreadSeconds() - begin;
  });
  SendAll(path, lines);
  while (counters.total < lines.size()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  interruption.Stop();
  receiver.join();
  if (counters.critical != lines.size() || counters.dropped_queue != 0)
    throw std::runtime_error("not every alert was queued");
  return seconds;
}

double Peer(const std::string& path, const std::vector<std::string>& lines) {
  ::unlink(path.c_str());
  double seconds = 0;
  std::thread receiver([&] {
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) std::abort();
    std::string buffer(kReceived, '\0');
    JsonLine line;
    const double begin = ThreadSeconds();
    for (size_t i = 0; i < lines.size(); ++i) {
      const ssize_t length = ::recv(fd, buffer.data(), buffer.size(), 0);
      if (length <= 0 || !line.Parse(std::string_view(buffer).substr(0, static_cast<size_t>(length))))
        std::abort();
    }
    seconds = ThreadSeconds() - begin;
    ::close(fd);
  });
  SendAll(path, lines);
  receiver.join();
  return seconds;
}

// Nanoseconds of one test of the limiter, with alerts of `attackers` in turn.
double LimiterCost(uint32_t attackers) {
  constexpr uint32_t kTests = 400000;
  RateLimiter limiter(1000000, 600);
  IdsEvent event;
  event.signature_id = 7;
  event.vm_uuid = "5029c1b8-0a53-4c0e-9b0c-6f1d3a3f7a01";
  event.src_ip = "10.00000000";
  const auto test = [&](uint32_t attacker) {
    for (size_t digit = 3; digit < event.src_ip.size(); ++digit, attacker /= 10)
      event.src_ip[digit] = static_cast<char>('0' + attacker % 10);
    limiter.Test(event, 1000);
  };
  for (uint32_t i = 0; i < attackers; ++i) test(i);
  const double begin = ThreadSeconds();
  for (uint32_t i = 0; i < kTests; ++i) test(i % attackers);
  return (ThreadSeconds() - begin) * 1e9 / kTests;
}

}  // namespace

std::string AlertLine(uint32_t number) {
  sim::AlertSpec alert;
  alert.signature_id = 2000000 + number;
  alert.vm_uuid = "5029c1b8-0a53-4c0e-9b0c-6f1d3a3f7a01";
  alert.rule_id = 3001;
  std::string line = sim::DetectionProcess::LineOf(alert);
  return line;
}

void RunConsumer(int rounds) {
  char folder[] = "/tmp/zem-bench-ids.XXXXXX";
  if (::mkdtemp(folder) == nullptr) throw std::runtime_error("no folder in /tmp");
  const std::string path = std::string(folder) + "/eve.socket";
  std::vector<std::string> lines;
  for (uint32_t i = 0; i < kAlerts; ++i) lines.push_back(AlertLine(i));
  std::printf("consumer: alerts of %zu bytes\n", lines[0].size());
  std::vector<std::string> of_few;
  for (uint32_t i = 0; i < kAlerts; ++i) of_few.push_back(AlertLine(i % 10));
  double ours = 1e9;
  double few = 1e9;
  double peer = 1e9;
  for (int round = 0; round < rounds; ++round) {
    ours = std::min(ours, Ours(path, lines));
    few = std::min(few, Ours(path, of_few));
    peer = std::min(peer, Peer(path, lines));
  }
  std::filesystem::remove_all(folder);
  MoreIsBetter("consumer", "alerts_per_cpu_s", kAlerts / ours, kAlerts / peer);
  // Each alert has its place in the limiter in the first run, ten are shared in the second.
  MoreIsBetter("consumer-60000-attackers-against-10", "alerts_per_cpu_s", kAlerts / ours, kAlerts / few);
}

void RunLimiter(int rounds) {
  const double many = Best(rounds, [] { return LimiterCost(100000); });
  const double few = Best(rounds, [] { return LimiterCost(10); });
  LessIsBetter("limiter-100000-against-10", "ns_per_alert", many, few);
}

}  // namespace zem::bench
