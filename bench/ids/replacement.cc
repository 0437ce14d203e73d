// How long the receiving thread is kept by an alert while the Kafka client is replaced again and again, as
// by a manager that changes the profile; the peer is the same without replacements.

#include <unistd.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <vector>

#include "app/ctxteng/idsevents/alert_socket.h"
#include "app/ctxteng/idsevents/ids_counters.h"
#include "app/ctxteng/idsevents/intake.h"
#include "app/ctxteng/idsqueue/interruption.h"
#include "app/ctxteng/kafka/kafka_owner.h"
#include "bench/ids/bench_ids.h"
#include "sim/kafka/kafka_brokers.h"

namespace zem::bench {
namespace {

using namespace IdsEvtEng;
using Ctxt::PaceClient::KafkaOwner;

constexpr int kDistinct = 1000;
constexpr auto kBetweenReplacements = std::chrono::milliseconds(20);
constexpr double kShare = 0.999;

// A client whose Kafka is a real one.
class KafkaServices final : public PlainServices {
 public:
  explicit KafkaServices(const KafkaOwner& owner) : owner_(owner) {}
  bool IsKafkaReady() override {
    const auto client = owner_.client();
    return client != nullptr && client->IsReady();
  }

 private:
  const KafkaOwner& owner_;
};

// Microseconds of the slowest alert in a thousand.
double SlowestInAThousand(const KafkaOwner& owner, const std::vector<std::string>& lines, int alerts) {
  IdsParam param;
  IdsCounters counters;
  KafkaServices services(owner);
  Interruption interruption;
  const CaptureFiles files("/nowhere", interruption);
  Intake intake(param, files, counters);
  LineQueue log_lines(10);
  AlertSocket socket(param, intake, log_lines, services, interruption);
  std::vector<double> costs;
  costs.reserve(static_cast<size_t>(alerts));
  for (int i = 0; i < alerts; ++i) {
    const auto begin = SteadyClock::now();
    socket.Take(lines[static_cast<size_t>(i) % lines.size()]);
    costs.push_back(Seconds(begin) * 1e6);
    intake.kafka_events().Pop();
    // Two thousand a second, so that many replacements happen meanwhile.
    if (i % 20 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const auto slowest = static_cast<ptrdiff_t>(kShare * static_cast<double>(costs.size()));
  std::nth_element(costs.begin(), costs.begin() + slowest, costs.end());
  return costs[static_cast<size_t>(slowest)];
}

}  // namespace

void RunReplacement(int rounds) {
  char folder[] = "/tmp/zem-bench-ids.XXXXXX";
  if (::mkdtemp(folder) == nullptr) throw std::runtime_error("no folder in /tmp");
  const sim::KafkaBrokers brokers(2);
  const std::string trust_store = std::string(folder) + "/";
  brokers.WriteHostFiles(trust_store);
  Ctxt::PaceClient::KafkaDeliveries deliveries;
  KafkaOwner owner(nullptr, deliveries);
  const auto settings = [&](Ctxt::KafkaConfig& config) {
    config.trust_store = trust_store;
    config.certificate = brokers.authority();
    config.brokers = brokers.tls() + ",";
    config.event_topic = "ids-data";
  };
  owner.Rebuild(settings);
  if (owner.client() == nullptr || !owner.client()->IsReady()) throw std::runtime_error("no Kafka client");
  std::vector<std::string> lines;
  for (uint32_t i = 0; i < kDistinct; ++i) lines.push_back(AlertLine(i));
  const int alerts = rounds > 1 ? 6000 : 500;
  const double quiet = Best(rounds, [&] { return SlowestInAThousand(owner, lines, alerts); });
  std::atomic<bool> stopping{false};
  int replaced = 0;
  std::thread replacer([&] {
    for (; !stopping; ++replaced) {
      owner.Rebuild(settings);
      std::this_thread::sleep_for(kBetweenReplacements);
    }
  });
  const double busy = Best(rounds, [&] { return SlowestInAThousand(owner, lines, alerts); });
  stopping = true;
  replacer.join();
  owner.Shutdown();
  std::filesystem::remove_all(folder);
  std::printf("replacement: %d clients\n", replaced);
  LessIsBetter("client-replacement", "slowest_in_1000_us", busy, quiet);
}

}  // namespace zem::bench
