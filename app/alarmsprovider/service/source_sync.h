#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "app/alarmsprovider/collector/collector_messages.h"

namespace zem {
class AsioZemProvider;
class Timer;
}  // namespace zem

namespace zem::Tarvik {

class NodeIdCache;

/// Tells the collector which alarm sources exist.  Ids that came in are sent every 10 s until the collector
/// has taken them; what comes in while an answer is due waits for the next round.
///
/// Threads: all operations from any thread.
/// Ownership: sender, ids and provider live until Stop has returned.
class SourceSync : public std::enable_shared_from_this<SourceSync> {
 public:
  SourceSync(AsioZemProvider& provider, CollectorSender& sender, NodeIdCache& ids);
  ~SourceSync();

  /// Begins the rounds; the first one runs before this returns.
  void Start();
  void Stop();
  /// Before Start, too.  Ids beyond the limit are logged and dropped.
  void AddSourceId(const std::string& id);
  /// Takes an answer of the collector.  Only the answer to the last request counts.
  void HandleResponse(const std::string& correlation_id, bool result);

 private:
  void Round();

  AsioZemProvider& provider_;
  CollectorSender& sender_;
  NodeIdCache& ids_;

  std::mutex mutex_;  // guards what follows
  std::set<std::string> new_source_ids_;
  std::set<std::string> pending_source_ids_;
  std::string correlation_id_;  // of the request that an answer may still come to
  std::shared_ptr<Timer> timer_;
  bool stopped_ = false;
};

}  // namespace zem::Tarvik
