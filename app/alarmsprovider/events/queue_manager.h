#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "app/alarmsprovider/collector/collector_messages.h"
#include "app/alarmsprovider/events/alarms_provider_queue.h"

namespace zem {
class AsioZemProvider;
class Timer;
}  // namespace zem

namespace zem::Tarvik {

class NodeIdCache;

/// Sends alarm events to the collector in numbered reports of at most 1000 events, and an empty report as a
/// heartbeat when there was nothing to send for 60 s.
///
/// A report that could not be sent is kept, and tried again at every tick before anything else is sent; the
/// events behind it wait in the queue.
///
/// Threads: all operations from any thread.  The mutex is held while a report is sent, so that reports leave
/// in the order of their numbers; sending does not wait for the collector.
/// Limits: 65,536 events with 256 MiB of text wait at most; a report carries a little over 8 MiB of text.
class QueueManager : public std::enable_shared_from_this<QueueManager> {
 public:
  /// The three objects have to outlive the manager's last tick: call `Stop` before they end.
  QueueManager(AsioZemProvider& provider, CollectorSender& owner, NodeIdCache& ids);
  ~QueueManager();

  void Start();
  void Stop();
  /// Drops the events and counts reports from 1 again.  A report that is kept is still the next one sent.
  void Reset();
  /// Returns false when the queue is full; the event is not kept then.
  [[nodiscard]] bool Write(SharedEvent event);
  /// Writes the events in order, with one time of arrival, until the queue is full.  Returns false when not
  /// all of them fit.
  [[nodiscard]] bool WriteAll(std::vector<SharedEvent> events);

  /// What waits for the collector, and how many reports were sent since the last reset.
  struct Waiting {
    size_t elements = 0;
    uint32_t sent = 0;
    bool kept = false;  ///< a report could not be sent and is tried again
  };
  Waiting waiting();

 private:
  bool Append(SharedEvent event);
  void Tick(uint64_t run);
  void SendBatches();
  /// Adds the size of the texts to `text`.
  bool PrepareReports(orlane::zem::monitoring::CollectorMpMsg* message, size_t* text);
  void PrepareEmptyReport(orlane::zem::monitoring::CollectorMpMsg* message);

  AsioZemProvider& provider_;
  CollectorSender& owner_;
  NodeIdCache& ids_;

  std::mutex mutex_;  // guards what follows
  AlarmsProviderQueue queue_;
  std::unique_ptr<orlane::zem::monitoring::CollectorMpMsg> kept_;  // null: nothing to send again
  int heartbeat_credit_;
  uint32_t sequence_number_ = 0;
  bool running_ = false;
  uint64_t run_ = 0;  // counts the starts: a tick of an earlier start does nothing
  std::shared_ptr<Timer> timer_;
};

}  // namespace zem::Tarvik
