#include "app/ctxteng/idsevents/ids_evt_engine.h"

#include <chrono>
#include <system_error>
#include <utility>

#include "app/ctxteng/base/ctxt_msg.h"
#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/idsevents/alert_socket.h"
#include "app/ctxteng/idsevents/event_senders.h"
#include "app/ctxteng/idsevents/external_logger.h"
#include "app/ctxteng/idsevents/ids_counters.h"
#include "app/ctxteng/idsevents/ids_services.h"
#include "app/ctxteng/idsevents/inbound.h"
#include "app/ctxteng/idsevents/intake.h"
#include "app/ctxteng/idsevents/pcap_senders.h"
#include "app/ctxteng/idsevents/roads.h"
#include "app/ctxteng/idsevents/workers.h"
#include "app/ctxteng/idsqueue/capture_files.h"
#include "app/ctxteng/idsqueue/interruption.h"
#include "app/ctxteng/idsqueue/node_records.h"
#include "framework/log/log.h"

namespace IdsEvtEng {
namespace {

constexpr zem::LogSource kLog{"tarvik", "idsevt"};

constexpr std::chrono::seconds kPatience{5};

int Signed(uint32_t value) { return static_cast<int>(value); }

void LogParam(const IdsParam& p) {
  ZLOG_INFO(
      "Ids event engine initialized with critQSize=%d, nonCritQSize=%d, kafkaQSize=%d, extLogQSize=%d, "
      "critPcapQSize=%d, nonCritPcapQSize=%d, pcapKafkaQSize=%d, critSendFreq=%d, nonCritSendFreq=%d, "
      "sendKafkaFreq=%d, extLogSendFreq=%d, critSendPcapFreq=%d, nonCritSendPcapFreq=%d, "
      "sendPcapKafkaFreq=%d, idsCriticalSeverity=%u, idsSocketName=%s, idsSocketRecvLen=%d, "
      "extLogSocketName=%s, rateLimitThresholdCrit=%d, rateLimitThresholdNonCrit=%d, "
      "rateLimitExpirationSecs=%d, maxPcapsPerProto=%d, pcapDirPath=%s, pcapCleanFreq=%d",
      Signed(p.criticalQSize), Signed(p.nonCriticalQSize), Signed(p.kafkaQSize), Signed(p.extLogQSize),
      Signed(p.criticalPcapQSize), Signed(p.nonCriticalPcapQSize), Signed(p.pcapKafkaQSize),
      Signed(p.criticalSendFreqS), Signed(p.nonCriticalSendFreqS), Signed(p.sendKafkaFreqS),
      Signed(p.extLogSendFreqS), Signed(p.criticalSendPcapFreqS), Signed(p.nonCriticalSendPcapFreqS),
      Signed(p.sendPcapKafkaFreqS), p.idsCriticalSeverity, p.idsSocketName.c_str(),
      Signed(p.idsSocketRecvLen), p.extLogSocketName.c_str(), Signed(p.rateLimitThresholdCrit),
      Signed(p.rateLimitThresholdNonCrit), Signed(p.rateLimitExpirationSecs), Signed(p.maxPcapsPerProto),
      p.pcapDirPath.c_str(), Signed(p.pcapCleanFreq));
}

EventLookups LookupsOf(const EngineSurroundings& surroundings) {
  IIdsServices& services = surroundings.services;
  return {surroundings.user_name, [&services](uint32_t rule_id, orlane::zem::TenantContextMsg* tenant) {
            return services.FillTenantContext(rule_id, tenant);
          }};
}

}  // namespace

// What the threads share.  Each of them holds it, and so does the channel as long as it calls.
struct IdsEvtEngine::Parts {
  Parts(const IdsParam& p, EngineSurroundings s) : param(p), surroundings(std::move(s)) {}

  const IdsParam param;
  const EngineSurroundings surroundings;
  Interruption interruption;
  CaptureFiles files{param.pcapDirPath, interruption};
  Intake intake{param, files, surroundings.counters};
  LineQueue log_lines{param.extLogQSize};
  ManagerRoad manager{surroundings.channel, surroundings.counters};
  KafkaRoad kafka{surroundings.services, surroundings.counters};
  Inbound inbound{manager, NodeRecords::Process()};
  EventSenders event_senders{
      param, intake, manager, kafka, surroundings.services, LookupsOf(surroundings), interruption};
  PcapSenders pcap_senders{param, intake, files, manager, kafka, surroundings.services, interruption};
  AlertSocket alert_socket{param, intake, log_lines, surroundings.services, interruption};
  ExternalLogger external_logger{
      param, log_lines, [this](uint32_t rule_id) { return surroundings.services.GetTenantString(rule_id); },
      interruption};
};

IdsEvtEngine::IdsEvtEngine(const IdsParam& param, EngineSurroundings surroundings)
    : parts_(std::make_shared<Parts>(param, std::move(surroundings))), workers_(std::make_unique<Workers>()) {
  LogParam(param);
}

IdsEvtEngine::~IdsEvtEngine() { Stop(); }

void IdsEvtEngine::Register() {
  Ctxt::CtxtChannel& channel = parts_->surroundings.channel;
  const std::weak_ptr<Parts> weak = parts_;
  channel.RegisterClient(kEventAppId, kEventAppType, [weak](const std::shared_ptr<Ctxt::CtxtMsg>& message) {
    if (const auto parts = weak.lock()) parts->inbound.OnEvents(message);
  });
  channel.RegisterClient(kPcapAppId, kPcapAppType, [weak](const std::shared_ptr<Ctxt::CtxtMsg>& message) {
    if (const auto parts = weak.lock()) parts->inbound.OnPcaps(message);
  });
}

void IdsEvtEngine::StartThreads() {
  const auto start = [this](const char* name, auto body) {
    workers_->Start(name, [parts = parts_, body] { body(*parts); });
  };
  start("ids:critical", [](Parts& parts) { parts.event_senders.RunManager(Class::kCritical); });
  start("ids:nonCritical", [](Parts& parts) { parts.event_senders.RunManager(Class::kNonCritical); });
  start("ids:kafka", [](Parts& parts) { parts.event_senders.RunKafka(); });
  start("ids:consumer", [](Parts& parts) { parts.alert_socket.Run(); });
  start("ids:extLog", [](Parts& parts) { parts.external_logger.Run(); });
  start("ids:critPcap", [](Parts& parts) { parts.pcap_senders.RunManager(Class::kCritical); });
  start("ids:ncritPcap", [](Parts& parts) { parts.pcap_senders.RunManager(Class::kNonCritical); });
  start("ids:pcapKafka", [](Parts& parts) { parts.pcap_senders.RunKafka(); });
  start("ids:pcapClean", [](Parts& parts) { parts.pcap_senders.RunCleaner(); });
}

int IdsEvtEngine::Start() {
  Register();
  running_ = true;
  ZLOG_INFO("Initializing event processing threads");
  try {
    StartThreads();
  } catch (const std::system_error& error) {
    ZLOG_CTX_ERROR(711, "Failed to start event processor/consumer threads, %s", error.what());
    Stop();
    return -1;
  }
  parts_->surroundings.notify_started();
  return 0;
}

void IdsEvtEngine::Stop() {
  if (!std::exchange(running_, false)) return;
  ZLOG_INFO("Interrupting IDS event processing threads");
  parts_->interruption.Stop();
  parts_->intake.kafka_events_ready().Stop();
  parts_->intake.kafka_pcaps_ready().Stop();
  // A thread that hangs in a peer's call keeps what it uses.
  if (workers_->Join(kPatience) > 0)
    ZLOG_CTX_ERROR(712, "Failed to terminate event processor/consumer threads");
}

}  // namespace IdsEvtEng
