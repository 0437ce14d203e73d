// A million alerts and their captures, by a seed, with a manager, a Kafka and limits that come and go: what
// was received and what was counted as dropped is what was sent.

#include <random>

#include "app/ctxteng/base/ctxt_msg.h"
#include "app/ctxteng/idsevents/alert_socket.h"
#include "app/ctxteng/idsevents/event_senders.h"
#include "app/ctxteng/idsevents/intake.h"
#include "app/ctxteng/idsevents/pcap_senders.h"
#include "app/ctxteng/idsevents/roads.h"
#include "app/ctxteng/idsqueue/interruption.h"
#include "tests/app/ctxteng/idsevents/engine_fixture.h"

namespace IdsEvtEng {
namespace {

// Counts what it accepts; the engine's messages are too many to keep.
class CountingManager final : public Ctxt::CtxtChannel {
 public:
  CountingManager() : CtxtChannel(link_) {}
  int SendMsg(const Ctxt::CtxtMsg& message, bool) override {
    if (down) return -1;
    if (const auto* const events = dynamic_cast<const EventInfoMsg*>(message.payload.get())) {
      for (const auto& info : events->event_info()) alerts += info.count();
    } else {
      captures += static_cast<uint64_t>(dynamic_cast<const PcapInfoMsg&>(*message.payload).pcap_size());
    }
    return 0;
  }

  bool down = false;
  uint64_t alerts = 0;
  uint64_t captures = 0;

 private:
  Ctxt::MpaChannel link_;
};

TEST(CountProofTest, NothingIsLostUncountedAndNothingIsInvented) {
  constexpr uint64_t kAlerts = 1'000'000;
  zem::VirtualClock clock;
  zem::test::LogCapture log(zem::kLogFatal);
  zem::test::TempDir folder;
  IdsParam param;
  param.pcapDirPath = folder.Path();
  param.rateLimitThresholdCrit = 20000;
  param.rateLimitThresholdNonCrit = 10000;
  param.rateLimitExpirationSecs = 4000;
  param.criticalQSize = param.nonCriticalQSize = 1000;
  IdsCounters counters;
  CountingManager channel;
  ServicesStub services;
  Interruption interruption;
  const CaptureFiles files(param.pcapDirPath, interruption);
  Intake intake(param, files, counters);
  LineQueue lines(10);
  ManagerRoad manager(channel, counters);
  KafkaRoad kafka(services, counters);
  EventSenders senders(
      param, intake, manager, kafka, services,
      {[](uint32_t) { return std::nullopt; }, [](uint32_t, orlane::zem::TenantContextMsg*) { return false; }},
      interruption);
  PcapSenders pcap_senders(param, intake, files, manager, kafka, services, interruption);
  AlertSocket socket(param, intake, lines, services, interruption);

  std::mt19937 random(20261126);
  const auto one_of = [&random](uint32_t n) { return random() % n == 0; };
  const auto drain = [&] {
    for (const Class c : {Class::kCritical, Class::kNonCritical}) {
      senders.SendBatch(c);
      pcap_senders.SendBatch(c);
    }
  };
  const std::string frame =
      R"({"event_type":"alert","src_ip":"10.0.0.%","dest_ip":"10.1.0.1","src_port":1,"dest_port":2,)"
      R"("timestamp":"2026-01-01T00:00:00","alert":{"signature_id":7,"severity":%}})";
  const size_t source = frame.find('%');
  const size_t severity = frame.rfind('%');
  std::string text = frame;
  uint64_t notices = 0;
  uint64_t kafka_alerts = 0;
  for (uint64_t i = 0; i < kAlerts; ++i) {
    text[source] = static_cast<char>('1' + random() % 9);
    text[severity] = static_cast<char>('0' + random() % 6);
    socket.Take(text);
    if (one_of(50)) socket.Take(NoticeOf(++notices));
    if (one_of(400)) senders.SendKafkaBatch();
    if (one_of(400)) pcap_senders.SendKafkaBatch();
    if (one_of(600)) drain();
    if (one_of(2000)) channel.down = !channel.down;
    if (one_of(2000)) services.kafka_ready = !services.kafka_ready;
    if (one_of(2000)) services.kafka_status = one_of(2) ? 0 : -1;
    if (one_of(5000)) clock.RunFor(std::chrono::seconds(random() % 100));
    if (one_of(20000)) {
      for (const EventInfoMsg& message : std::exchange(services.events, {})) {
        for (const auto& info : message.event_info()) kafka_alerts += info.count();
      }
    }
  }
  services.kafka_status = 0;
  services.kafka_ready = true;
  senders.SendKafkaBatch();
  pcap_senders.SendKafkaBatch();
  for (int i = 0; i < 100; ++i) drain();

  for (const EventInfoMsg& message : services.events) {
    for (const auto& info : message.event_info()) kafka_alerts += info.count();
  }
  EXPECT_EQ(counters.total, kAlerts);
  EXPECT_EQ(counters.total, counters.rate_limited + counters.critical + counters.non_critical);
  EXPECT_EQ(counters.critical + counters.non_critical,
            counters.dropped_queue + counters.manager.alert_sent + counters.manager.alert_dropped);
  EXPECT_EQ(channel.alerts, counters.manager.alert_sent);
  EXPECT_EQ(kafka_alerts, counters.kafka.alert_sent);
  EXPECT_EQ(counters.pcap_total + counters.pcap_dropped_kafka_queue, notices);
  EXPECT_EQ(counters.pcap_total, counters.pcap_dropped_queue + counters.pcap_manager.alert_sent +
                                     counters.pcap_manager.alert_dropped);
  EXPECT_EQ(channel.captures, counters.pcap_manager.alert_sent);
  uint64_t kafka_captures = 0;
  for (const PcapInfoMsg& message : services.pcaps)
    kafka_captures += static_cast<uint64_t>(message.pcap_size());
  EXPECT_EQ(kafka_captures, counters.pcap_kafka.alert_sent);
  // Every fault has been met.
  for (const Counter* counter :
       {&counters.rate_limited, &counters.dropped_queue, &counters.dropped_kafka_queue,
        &counters.manager.alert_dropped, &counters.kafka.alert_dropped, &counters.kafka.alert_sent,
        &counters.pcap_manager.alert_dropped, &counters.pcap_manager.alert_sent,
        &counters.pcap_kafka.alert_dropped, &counters.pcap_kafka.alert_sent}) {
    EXPECT_GT(*counter, 0U);
  }
  std::cout << "sent to the manager " << counters.manager.alert_sent << ", dropped there "
            << counters.manager.alert_dropped << ", by full queues " << counters.dropped_queue << ", limited "
            << counters.rate_limited << ", to Kafka " << kafka_alerts << "\n";
}

}  // namespace
}  // namespace IdsEvtEng
