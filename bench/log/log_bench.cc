#include <benchmark/benchmark.h>
#include <sched.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "framework/log/log.h"
#include "platform/core/thread.h"

// Compares the daemon's log lines with those of spdlog's syslog sink: the same text to the same kind of
// socket, which a thread reads.  Each of ours also carries its structured data, and the peer's pattern has
// the same fields.

namespace {

constexpr zem::LogSource kLog{"tarvik", "framework"};
constexpr const char* kText = "Connected to AF_UNIX socket /var/run/orlane/zem-agent/zema_link";

// Mounts a private /dev for this process, with a log socket that a thread empties.  Returns false when the
// system does not permit it.
bool OpenPrivateLogSocket() {
  if (::unshare(CLONE_NEWNS) != 0) return false;
  if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  if (::mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) return false;
  static const int sink = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  if (::bind(sink, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return false;
  zem::NativeThread::Options options;
  options.detached = true;
  const zem::NativeThread reader(options, [] {
    char datagram[65536];
    while (::recv(sink, datagram, sizeof(datagram), 0) >= 0) {
    }
  });
  return true;
}

spdlog::logger& Peer() {
  static const std::shared_ptr<spdlog::logger> logger = [] {
    auto made = spdlog::syslog_logger_mt("peer", "zem-tarvik", LOG_PID, LOG_LOCAL6, true);
    made->set_pattern(
        "ZEM %P - [zem@7741 comp=\"zem-qub\" subcomp=\"tarvik\" s2comp=\"framework\" tid=\"%t\" "
        "level=\"%l\"] %v");
    made->set_level(spdlog::level::info);
    return made;
  }();
  return *logger;
}

void OursDisabled(benchmark::State& state) {
  for (auto _ : state) ZLOG_DEBUG("%s %d", kText, 7);
}
void PeerDisabled(benchmark::State& state) {
  spdlog::logger& peer = Peer();
  for (auto _ : state) peer.debug("{} {}", kText, 7);
}
void OursEnabled(benchmark::State& state) {
  for (auto _ : state) ZLOG_INFO("%s %d", kText, 7);
}
void PeerEnabled(benchmark::State& state) {
  spdlog::logger& peer = Peer();
  for (auto _ : state) peer.info("{} {}", kText, 7);
}

// Keeps the time of each case, to compare the two sides at the end.
class PairReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      const std::string name = run.run_name.function_name;
      const size_t slash = name.find('/');
      times_[name.substr(slash + 1)][name.substr(0, slash)] = run.GetAdjustedRealTime();
    }
  }
  void PrintPairs() const {
    for (const auto& [name, sides] : times_) {
      const double ours = sides.at("ours");
      const double peer = sides.at("peer");
      std::printf("log %s ns_per_line ours=%.1f peer=%.1f ratio=%.2f\n", name.c_str(), ours, peer,
                  peer / ours);
    }
  }

 private:
  std::map<std::string, std::map<std::string, double>> times_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  zem::Logger::logLevel = zem::kLogInfo;
  benchmark::RegisterBenchmark("ours/disabled", &OursDisabled);
  benchmark::RegisterBenchmark("peer/disabled", &PeerDisabled);
  if (OpenPrivateLogSocket()) {
    ::openlog("zem-tarvik", LOG_PID, LOG_DAEMON);
    benchmark::RegisterBenchmark("ours/syslog", &OursEnabled)->UseRealTime();
    benchmark::RegisterBenchmark("peer/syslog", &PeerEnabled)->UseRealTime();
    benchmark::RegisterBenchmark("ours/syslog_4_threads", &OursEnabled)->Threads(4)->UseRealTime();
    benchmark::RegisterBenchmark("peer/syslog_4_threads", &PeerEnabled)->Threads(4)->UseRealTime();
  } else {
    std::printf(
        "no mount namespace of its own (root is needed): the lines that reach syslog are not measured\n");
  }
  PairReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintPairs();
  return 0;
}
