#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "app/alarmsprovider/collector/collector_messages.h"
#include "platform/core/retry_policy.h"

namespace zem {
class AsioZemProvider;
class Timer;
}  // namespace zem

namespace zem::Tarvik {

class NodeIdCache;

/// The reset that opens the conversation with the collector: asked for with growing delays until the
/// collector says true once.
///
/// Threads: all operations from any thread.
/// Ownership: sender, ids and provider live until Stop has returned.
class CollectorReset : public std::enable_shared_from_this<CollectorReset> {
 public:
  /// `done` is called once, with no lock held, when the collector has agreed.
  CollectorReset(AsioZemProvider& provider, CollectorSender& sender, NodeIdCache& ids,
                 std::function<void()> done);

  void Start();
  void Stop();
  /// Takes an answer of the collector.  Only the answer to the last request counts.
  void HandleResponse(const std::string& correlation_id, bool result);
  /// The collector has agreed.
  bool done();

 private:
  void Send();
  void ScheduleLocked();

  AsioZemProvider& provider_;
  CollectorSender& sender_;
  NodeIdCache& ids_;
  const std::function<void()> done_;

  std::mutex mutex_;  // guards what follows
  bool reset_done_ = false;
  bool stopped_ = false;
  RetryPolicy delays_{625, 60000, 2.0, -1};
  std::shared_ptr<Timer> timer_;
  std::string correlation_id_;  // of the request that an answer may still come to
};

}  // namespace zem::Tarvik
