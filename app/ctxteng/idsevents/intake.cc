#include "app/ctxteng/idsevents/intake.h"

#include <array>
#include <chrono>
#include <utility>

#include "app/ctxteng/idsevents/ids_counters.h"
#include "app/ctxteng/idsrecord/line_budget.h"
#include "framework/log/log.h"

namespace IdsEvtEng {
namespace {

constexpr zem::LogSource kLog{"tarvik", "idsevt"};
constexpr uint32_t kLinesOfAKind = 10;

// One queue of alerts, as its lines speak of it.
struct QueueTexts {
  const char* full;
  const char* added;
};
constexpr QueueTexts kCriticalTexts = {
    "Failed to add event to critical queue, current size = %d, max size = %d",
    "Added new event to critical queue: size = %d, %s"};
constexpr QueueTexts kNonCriticalTexts = {
    "Failed to add event to non-critical queue, current size = %d, max size = %d",
    "Added new event to non-critical queue: size = %d, %s"};
constexpr QueueTexts kKafkaTexts = {"Failed to add event to kafka queue, current size = %d, max size = %d",
                                    "Added new event to kafka queue: size = %d, %s"};

LineBudget g_full_queues{kLinesOfAKind};
LineBudget g_full_pcap_queues{kLinesOfAKind};

bool Push(const QueueTexts& texts, Intake::EventQueue* queue, std::unique_ptr<IdsEvent>* event) {
  const bool debug = ZLOG_WANTS(::zem::kLogDebug);
  const std::string text = debug ? LogText(**event) : std::string();
  if (queue->Push(*event)) {
    if (debug) ZLOG_DEBUG(texts.added, static_cast<int>(queue->count()), text.c_str());
    return true;
  }
  if (g_full_queues.Allows())
    ZLOG_CTX_ERROR(728, texts.full, static_cast<int>(queue->count()), static_cast<int>(queue->limit()));
  return false;
}

int64_t Seconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(zem::Clock::Process().WallNow().time_since_epoch())
      .count();
}

}  // namespace

Intake::Intake(const IdsParam& param, const CaptureFiles& files, IdsCounters& counters)
    : critical_severity_(param.idsCriticalSeverity),
      files_(files),
      counters_(counters),
      critical_limiter_(param.rateLimitThresholdCrit, param.rateLimitExpirationSecs),
      non_critical_limiter_(param.rateLimitThresholdNonCrit, param.rateLimitExpirationSecs),
      critical_(param.criticalQSize),
      non_critical_(param.nonCriticalQSize),
      kafka_(param.kafkaQSize),
      critical_pcap_(param.criticalPcapQSize),
      non_critical_pcap_(param.nonCriticalPcapQSize),
      kafka_pcap_(param.pcapKafkaQSize) {}

Class Intake::ClassOf(const IdsEvent& event) const {
  return event.severity > critical_severity_ ? Class::kNonCritical : Class::kCritical;
}

void Intake::AddEvent(std::unique_ptr<IdsEvent> event) {
  ++counters_.total;
  const Class c = ClassOf(*event);
  const bool critical = c == Class::kCritical;
  RateLimiter& limiter = critical ? critical_limiter_ : non_critical_limiter_;
  if (limiter.Test(*event, Seconds()) == 1) {
    ++counters_.rate_limited;
    return;
  }
  ++(critical ? counters_.critical : counters_.non_critical);
  if (!Push(critical ? kCriticalTexts : kNonCriticalTexts, &events(c), &event)) ++counters_.dropped_queue;
}

void Intake::AddKafkaEvent(std::unique_ptr<IdsEvent> event) {
  if (Push(kKafkaTexts, &kafka_, &event)) {
    kafka_ready_.Set();
    return;
  }
  // Kafka adds to the manager's road, it does not replace it.
  ++counters_.dropped_kafka_queue;
  AddEvent(std::move(event));
}

// Lets the oldest notice of a full queue go.  False when the queue has no room for a new one even then.
bool Intake::MakeRoom(Class c, PcapQueue* queue) {
  if (queue->count() < queue->limit()) return true;
  const auto oldest = queue->PopOfFull();
  const char* const name = c == Class::kCritical ? "critical" : "non-critical";
  if (oldest == nullptr) {
    // Between the look and the pop a sender may have made room.
    if (queue->count() < queue->limit()) return true;
    if (g_full_pcap_queues.Allows())
      ZLOG_CTX_ERROR(736, "Failed to pop events from %s pcap queue: size = %lu, size = %d, error = %s", name,
                     static_cast<unsigned long>(queue->count()), static_cast<int>(queue->limit()), "empty");
    return false;
  }
  ++counters_.pcap_dropped_queue;
  if (g_full_pcap_queues.Allows())
    ZLOG_CTX_ERROR(728, "%s pcap queue full. Remove old event with flow id: %lu, snipTsUs: %lu",
                   c == Class::kCritical ? "Critical" : "Non-critical", oldest->flow_id, oldest->snip_ts_us);
  files_.Remove(KeyOf(*oldest));
  return true;
}

void Intake::AddPcap(std::unique_ptr<IdsEvent> notice) {
  ++counters_.pcap_total;
  const Class c = ClassOf(*notice);
  ++(c == Class::kCritical ? counters_.pcap_critical : counters_.pcap_non_critical);
  PcapQueue& queue = pcaps(c);
  // Two threads add at the turn of Kafka's state, so the room that was made may be gone again.
  while (MakeRoom(c, &queue)) {
    if (queue.Push(notice)) return;
  }
  ++counters_.pcap_dropped_queue;
  if (g_full_pcap_queues.Allows())
    ZLOG_CTX_ERROR(728, "Failed to add event to pcap queue, current size = %d, max size = %d",
                   static_cast<int>(queue.count()), static_cast<int>(queue.limit()));
  files_.Remove(KeyOf(*notice));
}

void Intake::AddKafkaPcap(std::unique_ptr<IdsEvent> notice) {
  if (kafka_pcap_.Push(notice)) {
    kafka_pcap_ready_.Set();
    return;
  }
  ++counters_.pcap_dropped_kafka_queue;
  if (g_full_pcap_queues.Allows())
    ZLOG_CTX_ERROR(728, "Failed to add event to pcap queue, current size = %d, max size = %d",
                   static_cast<int>(kafka_pcap_.count()), static_cast<int>(kafka_pcap_.limit()));
  files_.Remove(KeyOf(*notice));
}

}  // namespace IdsEvtEng
