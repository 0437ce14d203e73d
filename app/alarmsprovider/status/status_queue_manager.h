#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "app/alarmsprovider/collector/collector_messages.h"

namespace orlane::zem::monitoring {
class MonitoringStatusReportMsg;
}

namespace zem {
class AsioZemProvider;
class Timer;
}  // namespace zem

namespace zem::Tarvik {

class NodeIdCache;

/// Sends the reports of the status source to the collector, every 10 s one numbered message with the contents
/// of up to 32 reports.  Reports that could not be sent stay at the front of the queue.
///
/// Threads: all operations from any thread.  The mutex is held while a message is sent; sending does not wait
/// for the collector.
/// Limits: 1024 reports of 64 MiB in all wait at most.
class StatusQueueManager : public std::enable_shared_from_this<StatusQueueManager> {
 public:
  using Report = orlane::zem::monitoring::MonitoringStatusReportMsg;

  /// The three objects have to outlive the manager's last tick: call `Stop` before they end.
  StatusQueueManager(AsioZemProvider& provider, CollectorSender& owner, NodeIdCache& ids);
  ~StatusQueueManager();

  void Start();
  void Stop();
  /// Drops the reports; with `clearSequence` messages are counted from 1 again.
  void Reset(bool clearSequence);
  /// Queues a copy; a heartbeat is sent at once instead.  Returns false when the report was dropped because
  /// the queue is full.
  [[nodiscard]] bool Enqueue(const Report& report);
  /// How many reports wait for the collector.
  size_t waiting();

 private:
  void SendHeartbeat(const Report& heartbeat);
  void Tick(uint64_t run);

  AsioZemProvider& provider_;
  CollectorSender& owner_;
  NodeIdCache& ids_;

  std::mutex mutex_;  // guards what follows
  std::deque<std::shared_ptr<Report>> reports_;
  size_t bytes_ = 0;  // of reports_
  uint32_t sequence_number_ = 0;
  bool running_ = false;
  uint64_t run_ = 0;  // counts the starts: a tick of an earlier start does nothing
  std::shared_ptr<Timer> timer_;
};

}  // namespace zem::Tarvik
