// The whole road on a node: from the detection process through the daemon to the manager.  The peer is the
// same burst of datagrams, sent to a socket that throws them away.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <thread>

#include "bench/build_folder.h"
#include "bench/ids/bench_ids.h"
#include "sim/ids/detection_process.h"
#include "sim/ids/ids_ledger.h"
#include "sim/scenario/node_process.h"

namespace zem::bench {
namespace {

constexpr const char* kEngine =
    "file/write /etc/orlane/zem-tarvik/zem-ctxteng.xml \"<config><ctxteng><metrics><numWorkerThreads>4"
    "</numWorkerThreads><maxEventsPerVm>50</maxEventsPerVm><listenPort>48655</listenPort></metrics><clients>"
    "<IdsClient>true</IdsClient></clients><IdsConfig><criticalQSize>65534</criticalQSize><nonCriticalQSize>"
    "65534</nonCriticalQSize><kafkaQSize>500</kafkaQSize><extLogQSize>1000</extLogQSize><criticalSendFreqS>1"
    "</criticalSendFreqS><nonCriticalSendFreqS>1</nonCriticalSendFreqS><sendKafkaFreqS>2</sendKafkaFreqS>"
    "<sendPcapKafkaFreqS>2</sendPcapKafkaFreqS><extLogSendFreqS>35</extLogSendFreqS><pcapCleanFreq>60"
    "</pcapCleanFreq><idsCriticalSeverity>2</idsCriticalSeverity><idsSocketName>/var/log/zem-idps/eve.socket"
    "</idsSocketName><idsSocketRecvLen>65536</idsSocketRecvLen><extLogSocketName>/var/log/zem-idps/"
    "zem-idps-events.socket</extLogSocketName><rateLimitThresholdCrit>100000000</rateLimitThresholdCrit>"
    "<rateLimitThresholdNonCrit>100000000</rateLimitThresholdNonCrit></IdsConfig></ctxteng></config>\"";

double Peer(uint64_t alerts) {
  char folder[] = "/tmp/zem-bench-ids.XXXXXX";
  if (::mkdtemp(folder) == nullptr) throw std::runtime_error("no folder in /tmp");
  const std::string path = std::string(folder) + "/sink.socket";
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    throw std::runtime_error("no sink");
  std::thread sink([fd, alerts] {
    std::string buffer(65536, '\0');
    for (uint64_t i = 0; i < alerts; ++i) static_cast<void>(::recv(fd, buffer.data(), buffer.size(), 0));
  });
  sim::IdsLedger ledger;
  sim::DetectionProcess detection(path, folder, ledger);
  const auto begin = SteadyClock::now();
  if (detection.SendBurst(alerts, 1) != alerts) throw std::runtime_error("the sink did not take the burst");
  sink.join();
  const double seconds = Seconds(begin);
  ::close(fd);
  std::filesystem::remove_all(folder);
  return seconds;
}

}  // namespace

void RunRoad(int rounds) {
  const uint64_t alerts = rounds > 1 ? 100000 : 5000;
  sim::NodeProcess node(BuildFolder() + "/sim/node/zem-node",
                        {"--options", ZEM_BENCH_FILES "/ids.xml", "--no-daemon"});
  node.Do(kEngine);
  node.Do("daemon/start");
  node.Do("log/wait \"RMQ_CLIENT_REGISTRATION_ACK message ignored for appType ZEM-IntrusionServices\" 30");
  double best = 1e9;
  double wanted = 0;
  for (int round = 0; round < rounds; ++round) {
    wanted += static_cast<double>(alerts);
    const auto begin = SteadyClock::now();
    node.Do("ids burst " + std::to_string(alerts) + " " + std::to_string(round + 1));
    node.Await("ids received", std::chrono::seconds(60),
               [wanted](const cJSON* received) { return sim::NumberAt(received, "alerts") == wanted; });
    best = std::min(best, Seconds(begin));
  }
  const auto stats = node.Do("cli get/idsStats");
  std::printf(
      "road: %.0f alerts arrived, %.0f dropped\n", wanted,
      sim::NumberAt(stats.get(), "json.dropped-q") + sim::NumberAt(stats.get(), "json.alert-dropped-mp"));
  MoreIsBetter("road", "alerts_per_s_against_bare_datagrams", static_cast<double>(alerts) / best,
               static_cast<double>(alerts) / Peer(alerts));
}

}  // namespace zem::bench
