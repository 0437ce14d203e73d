#include "app/alarmsprovider/status/status_queue_manager.h"

#include <chrono>
#include <utility>
#include <vector>

#include "app/alarmsprovider/collector/node_id_cache.h"
#include "framework/log/log.h"
#include "mpaclient/bus/bus_record.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "proto/monitoring/monitoring.pb.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

constexpr size_t kCapacity = 1024;
constexpr size_t kMaxBytes = 64 << 20;
constexpr size_t kBatchSize = 32;
// Reports are taken together up to this size: a message that is larger than the connection takes is lost,
// though it counts as sent.
constexpr size_t kMaxBatchBytes = 8 << 20;
constexpr auto kTick = std::chrono::seconds(10);

}  // namespace

using orlane::zem::monitoring::CollectorMpMsg;

StatusQueueManager::StatusQueueManager(AsioZemProvider& provider, CollectorSender& owner, NodeIdCache& ids)
    : provider_(provider), owner_(owner), ids_(ids) {}

StatusQueueManager::~StatusQueueManager() {
  if (timer_) timer_->Cancel();
}

void StatusQueueManager::Start() {
  const std::lock_guard lock(mutex_);
  ZLOG_INFO("Status Queue Manager Starting");
  if (running_) {
    ZLOG_INFO("Status Queue Manager already started. Nothing to do.");
    return;
  }
  running_ = true;
  timer_ = provider_.timers().ScheduleRepeated(
      kTick,
      [self = weak_from_this(), run = ++run_] {
        if (const auto alive = self.lock()) alive->Tick(run);
      },
      TimerOptions::Default);
  ZLOG_INFO("StatusQueueManager timer created");
}

void StatusQueueManager::Stop() {
  const std::lock_guard lock(mutex_);
  if (!running_) {
    ZLOG_INFO("Status Queue Manager already stopped. Nothing to do.");
    return;
  }
  running_ = false;
  std::exchange(timer_, nullptr)->Cancel();
  ZLOG_INFO("StatusQueueManager timer cancelled");
  ZLOG_INFO("Status Queue Manager Stopped");
}

void StatusQueueManager::Reset(bool clearSequence) {
  const std::lock_guard lock(mutex_);
  ZLOG_INFO("Status Queue Manager Reset");
  reports_.clear();
  bytes_ = 0;
  if (clearSequence) sequence_number_ = 0;
}

bool StatusQueueManager::Enqueue(const Report& report) {
  const std::lock_guard lock(mutex_);
  if (report.has_heartbeat()) {
    SendHeartbeat(report);
    return true;
  }
  const size_t bytes = report.ByteSizeLong();
  if (reports_.size() >= kCapacity || bytes_ + bytes > kMaxBytes) {
    ZLOG_WARN("Dropping update as status queue is full. Size: %lu. Will initiate full-sync.",
              static_cast<unsigned long>(reports_.size()));
    return false;
  }
  bytes_ += bytes;
  reports_.push_back(std::make_shared<Report>(report));
  return true;
}

size_t StatusQueueManager::waiting() {
  const std::lock_guard lock(mutex_);
  return reports_.size();
}

void StatusQueueManager::SendHeartbeat(const Report& heartbeat) {
  CollectorMpMsg message;
  message.set_msg_type(CollectorMpType::kStatusReport);
  Report* const report = message.mutable_status_report();
  *report = heartbeat;
  report->set_sequence_number(++sequence_number_);
  SetNodeIds(ids_, report);
  const std::string correlation_id = RandomUuidText();
  if (owner_.SendToCollector(message, correlation_id, kRmqClientPublish)) {
    ZLOG_INFO("Sent status-source heartbeat to collector with seq no: %u", sequence_number_);
  } else {
    ZLOG_ERROR("OPS60004", "Failed to send status-source heartbeat to collector (correlation id:%s)",
               correlation_id.c_str());
    --sequence_number_;
  }
}

void StatusQueueManager::Tick(uint64_t run) {
  const std::lock_guard lock(mutex_);
  if (!running_ || run != run_) return;
  if (reports_.empty()) {
    ZLOG_DEBUG("Status-source queue empty. Nothing to do.");
    return;
  }
  CollectorMpMsg message;
  message.set_msg_type(CollectorMpType::kStatusReport);
  Report* const combined = message.mutable_status_report();
  combined->set_sequence_number(++sequence_number_);
  SetNodeIds(ids_, combined);
  std::vector<std::shared_ptr<Report>> taken;
  size_t bytes = 0;
  while (!reports_.empty() && taken.size() < kBatchSize) {
    const size_t next = reports_.front()->ByteSizeLong();
    if (!taken.empty() && bytes + next > kMaxBatchBytes) break;
    bytes += next;
    taken.push_back(std::move(reports_.front()));
    reports_.pop_front();
    combined->mutable_status_vertical_report()->MergeFrom(taken.back()->status_vertical_report());
  }
  const std::string correlation_id = RandomUuidText();
  if (owner_.SendToCollector(message, correlation_id, kRmqClientPublish)) {
    bytes_ -= bytes;
    ZLOG_DEBUG("Sent AggSvc status report with %u members to collector with seq no %u",
               static_cast<unsigned>(combined->status_vertical_report_size()), sequence_number_);
    ZLOG_TRACE("AggSvc status report: %s", combined->ShortDebugString().c_str());
    return;
  }
  ZLOG_ERROR("OPS60004", "Failed to send status-source report to collector (correlation id:%s)",
             correlation_id.c_str());
  reports_.insert(reports_.begin(), taken.begin(), taken.end());
  --sequence_number_;
}

}  // namespace zem::Tarvik
