#include "tests/world/world_ids.h"

#include <atomic>
#include <filesystem>
#include <optional>

#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/channel/mpa_channel.h"
#include "app/ctxteng/idsevents/ids_services.h"
#include "proto/context/ids.pb.h"
#include "sim/manager/manager.h"

namespace zem::world {
namespace {

constexpr const char* kAlertSocket = "/var/log/zem-idps/eve.socket";
constexpr const char* kCaptures = "/var/log/zem-idps/pcaps";
constexpr const char* kLoggerSocket = "/var/log/zem-idps/zem-idps-events.socket";
constexpr uint32_t kProbeSignature = 9000000;
constexpr size_t kEntriesSearched = 200;
constexpr int kChecksOfAProbe = 4;

}  // namespace

// The intrusion detection client, with a Kafka of which only the state matters here.
class WorldIds::Client final : public IdsEvtEng::IIdsServices {
 public:
  bool IsKafkaReady() override { return kafka_ready; }
  int SendKafkaEvent(const orlane::zem::context::ids::EventInfoMsg&) override {
    return kafka_refuses ? -1 : 0;
  }
  int SendKafkaPcap(const orlane::zem::context::ids::PcapInfoMsg&) override { return kafka_refuses ? -1 : 0; }
  bool GetTnUuid(orlane::zem::UuidMsg* uuid) override {
    uuid->set_first(1);
    return true;
  }
  void GetSiteId(orlane::zem::UuidMsg* uuid) override { uuid->set_first(1); }
  bool FillTenantContext(uint32_t, orlane::zem::TenantContextMsg*) override { return false; }
  std::string GetTenantString(uint32_t) override { return "[org=\"o\"]: "; }
  bool IsEnabled() override { return true; }
  bool IsExternalLoggingEnabled() override { return true; }
  bool IsPcapEnabled() override { return true; }

  std::atomic<bool> kafka_ready{false};
  std::atomic<bool> kafka_refuses{false};
};

WorldIds::WorldIds(sim::Manager& manager)
    : detection_(kAlertSocket, kCaptures, ledger_),
      logger_(kLoggerSocket),
      services_(manager, ledger_),
      client_(std::make_unique<Client>()) {}

WorldIds::~WorldIds() = default;

void WorldIds::StartAgent(AsioZemProvider& provider) {
  counters_ = std::make_unique<IdsEvtEng::IdsCounters>();
  announced_before_ = detection_.counters().alerts;
  link_ = std::make_unique<Ctxt::MpaChannel>();
  channel_ = std::make_unique<Ctxt::CtxtChannel>(*link_);
  channel_->Initialize(provider);
  engine_ = std::make_unique<IdsEvtEng::IdsEvtEngine>(
      IdsParam(),
      IdsEvtEng::EngineSurroundings{*client_, *channel_, *counters_,
                                    [](uint32_t) { return std::optional<std::string>("user"); }, [] {}});
  engine_->Start();
}

void WorldIds::StopAgent() {
  engine_->Stop();
  channel_->Shutdown();
  engine_.reset();
  channel_.reset();
  link_.reset();
}

void WorldIds::Announce(std::mt19937_64& random) {
  switch (random() % 6) {
    case 0:
      detection_.SendGarbage();
      break;
    case 1:
    case 2:
      for (uint64_t i = random() % 30; i > 0; --i)
        detection_.SendCapture(++flows_, 7, static_cast<uint32_t>(random() % 8));
      break;
    default:
      detection_.SendBurst(random() % 3000, static_cast<uint32_t>(random()));
  }
}

void WorldIds::Disturb(std::mt19937_64& random) {
  using Reading = sim::LogCollector::Reading;
  switch (random() % 5) {
    case 0:
      if (!logger_.Stop()) logger_.Start();
      break;
    case 1:
      logger_.SetReading(random() % 2 == 0 ? Reading::kNot : Reading::kFast);
      break;
    case 2:
      client_->kafka_refuses = !client_->kafka_refuses;
      break;
    default:
      client_->kafka_ready = !client_->kafka_ready;
  }
}

void WorldIds::Calm() {
  client_->kafka_refuses = false;
  logger_.SetReading(sim::LogCollector::Reading::kFast);
  probe_.clear();
}

void WorldIds::Probe() {
  sim::AlertSpec alert;
  alert.signature_id = kProbeSignature + ++probes_;
  probe_ = "\"signatureId\":" + std::to_string(alert.signature_id);
  checks_ = 0;
  if (detection_.SendAlerts(alert, 1) != 1) probe_ = "an alert that the agent did not take";
}

std::vector<std::string> WorldIds::Check() {
  if (probe_.empty() || ++checks_ == kChecksOfAProbe) Probe();
  std::vector<std::string> lines = ledger_.violations();
  bool arrived = false;
  for (const std::string& entry : services_.Newest(kEntriesSearched))
    arrived = arrived || entry.find(probe_) != std::string::npos;
  if (!arrived) lines.push_back("the manager does not have the alert of a quiet moment, " + probe_);
  CheckCounters(&lines);
  return lines;
}

// Everything that this run took is sent, or is counted where it was lost.
void WorldIds::CheckCounters(std::vector<std::string>* lines) const {
  const IdsEvtEng::IdsCounters& c = *counters_;
  const auto require = [lines](const char* what, uint64_t one, uint64_t other) {
    if (one != other)
      lines->push_back(std::string("intrusion alerts: ") + what + ": " + std::to_string(one) + " and " +
                       std::to_string(other));
  };
  require("announced and taken", detection_.counters().alerts - announced_before_, c.total);
  require("taken, and limited or let through", c.total, c.rate_limited + c.critical + c.non_critical);
  require("let through, and sent or dropped", c.critical + c.non_critical,
          c.dropped_queue + c.manager.alert_sent + c.manager.alert_dropped);
  require("captures, and sent or dropped", c.pcap_total,
          c.pcap_dropped_queue + c.pcap_manager.alert_sent + c.pcap_manager.alert_dropped);
}

}  // namespace zem::world
