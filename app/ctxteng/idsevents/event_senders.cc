#include "app/ctxteng/idsevents/event_senders.h"

#include <chrono>
#include <new>
#include <utility>

#include "app/ctxteng/idsevents/fence.h"
#include "app/ctxteng/idsevents/ids_services.h"
#include "app/ctxteng/idsqueue/event_merge.h"
#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "proto/context/ids.pb.h"

namespace IdsEvtEng {
namespace {

using orlane::zem::context::ids::EventInfo;
using orlane::zem::context::ids::EventInfoMsg;

constexpr zem::LogSource kLog{"tarvik", "idsevt"};

constexpr uint32_t kVersion = 1;
// What an entry costs in a message beside its own bytes, and a message without entries; both generous.
constexpr size_t kEntryFrame = 8;
constexpr size_t kMessageFrame = 128;

const char* NameOf(Class c) { return c == Class::kCritical ? "critical" : "non-critical"; }

}  // namespace

// The entries of one round, in as many messages as the road's limit asks for.  What is not sent when the
// batch ends, by an exception as well, is counted as dropped.
class EventSenders::Batch {
 public:
  Batch(EventSenders& senders, EventMerge* merge, Road* road, bool to_kafka)
      : senders_(senders), events_(merge->events()), road_(*road), to_kafka_(to_kafka) {}
  ~Batch() {
    uint64_t entries = 0;
    uint64_t alerts = alerts_;
    if (message_ != nullptr) entries = static_cast<uint64_t>(message_->event_info_size());
    for (; next_ < events_.size(); ++next_, ++entries) alerts += events_[next_]->count;
    road_.event_counters().proto_dropped += entries;
    road_.event_counters().alert_dropped += alerts;
  }
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

  void Send() {
    Begin();
    while (next_ < events_.size() && Add(*events_[next_])) events_[next_++].reset();
    if (message_ == nullptr || message_->event_info_size() == 0) {
      ZLOG_WARN("Event info message dropped since event info can not be attached");
      return;
    }
    Finish();
  }

 private:
  void Begin() {
    message_ = std::make_shared<EventInfoMsg>();
    senders_.services_.GetSiteId(message_->mutable_site_uuid());
    message_->set_version(kVersion);
    if (to_kafka_ && !senders_.services_.GetTnUuid(message_->mutable_node_id())) message_->clear_node_id();
    bytes_ = kMessageFrame;
    alerts_ = 0;
  }

  void Finish() {
    auto message = std::exchange(message_, nullptr);
    const uint64_t alerts = std::exchange(alerts_, 0);
    road_.Send(std::move(message), alerts);
  }

  bool Add(const IdsEvent& event) {
    try {
      auto info = std::make_unique<EventInfo>();
      BuildEventInfo(event, senders_.lookups_, info.get());
      if (to_kafka_) AddMetadata(event, info.get());
      const size_t size = info->ByteSizeLong() + kEntryFrame;
      if (bytes_ + size > road_.most_bytes() && message_->event_info_size() > 0) {
        Finish();
        Begin();
      }
      message_->mutable_event_info()->AddAllocated(info.release());
      bytes_ += size;
      alerts_ += event.count;
      return true;
    } catch (const std::bad_alloc&) {
      ZLOG_WARN("Event info message allocation failure. signature id: %d event time: %s",
                static_cast<int>(event.signature_id), event.timestamp.c_str());
      return false;
    }
  }

  EventSenders& senders_;
  std::vector<std::unique_ptr<IdsEvent>>& events_;
  Road& road_;
  const bool to_kafka_;
  size_t next_ = 0;
  std::shared_ptr<EventInfoMsg> message_;
  size_t bytes_ = 0;
  uint64_t alerts_ = 0;  // that the entries of the message stand for
};

EventSenders::EventSenders(const IdsParam& param, Intake& intake, Road& manager, Road& kafka,
                           IIdsServices& services, EventLookups lookups, Interruption& interruption)
    : param_(param),
      intake_(intake),
      manager_(manager),
      kafka_(kafka),
      services_(services),
      lookups_(std::move(lookups)),
      interruption_(interruption) {}

void EventSenders::RunManager(Class c) {
  const std::chrono::seconds period(c == Class::kCritical ? param_.criticalSendFreqS
                                                          : param_.nonCriticalSendFreqS);
  while (!interruption_.SleepFor(period)) {
    Fenced(722, "Exception while processing %s events, error %s",
           "Unknown exception while processing %s events", NameOf(c), [this, c] { SendBatch(c); });
  }
  ZLOG_INFO("%s event processing thread interrupted, exiting", NameOf(c));
}

void EventSenders::RunKafka() {
  const std::chrono::seconds period(param_.sendKafkaFreqS);
  while (intake_.kafka_events_ready().WaitFor(period)) {
    Fenced(722, "Exception while processing kafka events, error %s",
           "Unknown exception while processing kafka events", nullptr, [this] { SendKafkaBatch(); });
    intake_.kafka_events_ready().Clear();
  }
  ZLOG_INFO("kafka event processing thread interrupted, exiting");
}

void EventSenders::SendBatch(Class c) {
  Intake::EventQueue& queue = intake_.events(c);
  const uint32_t count = queue.count();
  if (count == 0) return;
  const zem::LoopStep step("alerts to the manager");
  EventMerge merge(count);
  while (merge.added() < count) {
    auto event = queue.Pop();
    if (event == nullptr) break;
    merge.Add(std::move(event));
  }
  ZLOG_INFO("Events deduped from %d to %zu", static_cast<int>(merge.added()), merge.events().size());
  ZLOG_INFO("Sending batch of %d %s events to MP", static_cast<int>(merge.added()), NameOf(c));
  SendMerged(&merge, &manager_, false);
}

void EventSenders::SendKafkaBatch() {
  const uint32_t count = intake_.kafka_events().count();
  if (count == 0) return;
  const zem::LoopStep step("alerts to Kafka");
  EventMerge merge(count);
  while (merge.added() < count) {
    auto event = intake_.kafka_events().Pop();
    if (event == nullptr) break;
    intake_.AddEvent(std::make_unique<IdsEvent>(*event));
    merge.Add(std::move(event));
  }
  ZLOG_INFO("Kafka events deduped from %d to %zu", static_cast<int>(merge.added()), merge.events().size());
  ZLOG_INFO("Sending batch of %d events to ZEM-i/QRD", static_cast<int>(merge.added()));
  SendMerged(&merge, &kafka_, true);
}

void EventSenders::SendMerged(EventMerge* merge, Road* road, bool to_kafka) {
  Batch(*this, merge, road, to_kafka).Send();
}

}  // namespace IdsEvtEng
