#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/core/clock.h"
#include "platform/rpc/call.h"
#include "platform/rpc/server.h"
#include "proto/monitoring/monitoring_services.pb.h"

namespace zem::Tarvik {

class ProviderHost;
class StatusQueueManager;

/// The one status source of the node, while it is registered.
///
/// Threads: all operations from any thread.  The mutex is held while a message is written to the source, so
/// that messages leave in order.
class StatusSource : public std::enable_shared_from_this<StatusSource> {
 public:
  using SourceMsg = orlane::zem::monitoring::MonitoringStatusSourceMsg;
  using ProviderMsg = orlane::zem::monitoring::MonitoringStatusProviderMsg;
  using Call = rpc::CallHandle<ProviderMsg>;
  using Table = std::map<std::string, uint32_t>;

  /// `full_sync_needed` is called when reports were lost.
  StatusSource(StatusQueueManager& queue, ProviderHost& host, std::function<void()> full_sync_needed);

  /// A second source is refused: its call ends, and what it sends is ignored.
  std::unique_ptr<rpc::RequestObserver<SourceMsg>> Register(Call call);

  /// Asks the source for everything.  Returns false when none is registered.  A request that is still
  /// unanswered after less than 10 s is not repeated.
  [[nodiscard]] bool RequestFullSync();
  /// Does nothing without a source: it gets the configuration when it says hello.
  void SendConfig(const Table& table, bool enabled);

 private:
  class RegisterStatusSourceObserver;

  void TakeHello(const RegisterStatusSourceObserver* source);
  void TakeFullSync(const RegisterStatusSourceObserver* source,
                    const orlane::zem::monitoring::MonitoringStatusFullSyncMsg& message);
  void TakeReport(const orlane::zem::monitoring::MonitoringStatusReportMsg& report);
  void Unregister(const RegisterStatusSourceObserver* source);

  StatusQueueManager& queue_;
  ProviderHost& host_;
  const std::function<void()> full_sync_needed_;

  std::mutex mutex_;  // guards what follows
  bool source_registered_ = false;
  const RegisterStatusSourceObserver* observer_ = nullptr;
  Call call_;                                 // of the registered source
  std::optional<TimePoint> full_sync_asked_;  // nothing: no request is unanswered
};

}  // namespace zem::Tarvik
