#include "app/alarmsprovider/events/queue_manager.h"

#include <google/protobuf/arena.h>

#include <chrono>
#include <utility>

#include "app/alarmsprovider/collector/node_id_cache.h"
#include "app/alarmsprovider/events/event_report.h"
#include "framework/log/log.h"
#include "mpaclient/bus/bus_record.h"
#include "platform/metrics/process_metrics.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "proto/monitoring/monitoring.pb.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

constexpr size_t kMaxEventsPerReport = 1000;
// Half of what one message may carry, and of what may wait on the connection to leave: what is over those
// limits is lost, though it counts as sent.
constexpr size_t kMaxTextPerReport = 8 << 20;
constexpr size_t kMaxTextAtOnce = 8 << 20;
constexpr int kHeartbeatCredit = 12;
constexpr auto kTick = std::chrono::seconds(5);
constexpr double kSendThreshold = 0.5;
constexpr auto kSendAtSize = static_cast<size_t>(AlarmsProviderQueue::kCapacity * kSendThreshold);

}  // namespace

using orlane::zem::monitoring::CollectorMpMsg;

QueueManager::QueueManager(AsioZemProvider& provider, CollectorSender& owner, NodeIdCache& ids)
    : provider_(provider), owner_(owner), ids_(ids), heartbeat_credit_(kHeartbeatCredit) {}

QueueManager::~QueueManager() { Stop(); }

void QueueManager::Start() {
  const std::lock_guard lock(mutex_);
  ZLOG_INFO("Starting Queue Manager");
  if (running_) return;
  running_ = true;
  timer_ = provider_.timers().ScheduleRepeated(
      kTick,
      [self = weak_from_this(), run = ++run_] {
        if (const auto alive = self.lock()) alive->Tick(run);
      },
      TimerOptions::Default);
  ZLOG_INFO("Queue Manager Started");
}

void QueueManager::Stop() {
  const std::lock_guard lock(mutex_);
  running_ = false;
  if (const auto timer = std::exchange(timer_, nullptr)) timer->Cancel();
}

void QueueManager::Reset() {
  const std::lock_guard lock(mutex_);
  ZLOG_INFO("Queue Manager resets");
  queue_.Reset();
  sequence_number_ = 0;
}

bool QueueManager::Write(SharedEvent event) {
  event->enqueue_time = Clock::Process().Now();
  const std::lock_guard lock(mutex_);
  return Append(std::move(event));
}

bool QueueManager::WriteAll(std::vector<SharedEvent> events) {
  const TimePoint now = Clock::Process().Now();
  const std::lock_guard lock(mutex_);
  for (SharedEvent& event : events) {
    event->enqueue_time = now;
    if (!Append(std::move(event))) return false;
  }
  return true;
}

QueueManager::Waiting QueueManager::waiting() {
  const std::lock_guard lock(mutex_);
  return {queue_.size(), sequence_number_, kept_ != nullptr};
}

bool QueueManager::Append(SharedEvent event) {
  if (!queue_.Push(std::move(event))) {
    metrics::CounterOf(metrics::MetricId::kAlarmsDropped).Add();
    ZLOG_INFO("Provider queue is full.");
    return false;
  }
  // While a report is kept, every try costs a serialization and an error line: the ticks are enough.
  if (running_ && kept_ == nullptr && queue_.size() >= kSendAtSize) SendBatches();
  return true;
}

void QueueManager::Tick(uint64_t run) {
  const std::lock_guard lock(mutex_);
  if (!running_ || run != run_) return;
  ZLOG_DEBUG("Queue Manager dispatches read tasks");
  --heartbeat_credit_;
  SendBatches();
}

void QueueManager::SendBatches() {
  ZLOG_DEBUG("Queue Manager starts to batch and send events");
  for (size_t text = 0;;) {
    // A report has thousands of small parts, which end together.
    google::protobuf::Arena arena;
    auto* const message = google::protobuf::Arena::CreateMessage<CollectorMpMsg>(&arena);
    message->set_msg_type(CollectorMpType::kEventReport);
    if (!PrepareReports(message, &text)) {
      if (heartbeat_credit_ != 0) {
        ZLOG_DEBUG("Queue manager: Heart beat credit = %d.", heartbeat_credit_);
        return;
      }
      PrepareEmptyReport(message);
    }
    const std::string correlation_id = RandomUuidText();
    ZLOG_DEBUG("Sending eventReport to MP with sequence number %u and correlationId: %s.",
               message->event_report().sequence_number(), correlation_id.c_str());
    if (!owner_.SendToCollector(*message, correlation_id, kRmqClientPublish)) {
      ZLOG_ERROR("OPS60004", "Collector is unable to receive reports (correlation id:%s).",
                 correlation_id.c_str());
      kept_ = std::make_unique<CollectorMpMsg>(*message);
      return;
    }
    kept_ = nullptr;
    const SharedEvent oldest = queue_.Peek();
    const bool old = oldest != nullptr && Clock::Process().Now() - oldest->enqueue_time >= kTick;
    if (!old || text >= kMaxTextAtOnce) break;
  }
  heartbeat_credit_ = kHeartbeatCredit;
  ZLOG_DEBUG("Event batch sent.");
}

bool QueueManager::PrepareReports(CollectorMpMsg* message, size_t* text) {
  if (kept_ != nullptr) {
    *message = *kept_;
    *text += message->ByteSizeLong();
    return true;
  }
  ZLOG_DEBUG("Queue Manager reads events");
  std::vector<SharedEvent> events;
  for (size_t taken = 0; events.size() < kMaxEventsPerReport && taken < kMaxTextPerReport;) {
    SharedEvent event = queue_.Pop();
    if (event == nullptr) break;
    taken += event->TextBytes();
    *text += event->TextBytes();
    events.push_back(std::move(event));
  }
  if (events.empty()) return false;
  PrepareEmptyReport(message);
  AddToReport(events, message->mutable_event_report());
  return true;
}

void QueueManager::PrepareEmptyReport(CollectorMpMsg* message) {
  auto* const report = message->mutable_event_report();
  report->set_sequence_number(++sequence_number_);
  metrics::CounterOf(metrics::MetricId::kAlarmsDelivered).Add();
  SetNodeIds(ids_, report);
}

}  // namespace zem::Tarvik
