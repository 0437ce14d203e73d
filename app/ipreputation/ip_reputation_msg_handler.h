#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "app/ipreputation/ip_reputation_mp_channel.h"
#include "platform/core/condition.h"
#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"

namespace orlane::zem::covedb {
class MonitorUpdateMsg;
}
namespace orlane::zem::firewall {
class IpReputationEventRequestMsg;
}

namespace zem::covedb {
class CoveDbClientInterface;
}

namespace zem::Tarvik {

/// Watches the count of records in the local store and reports it every 120 seconds for as long as it is not
/// 0.
///
/// Threads: `Start` and `Stop` one after the other.  Each report is sent by a thread of its own, since the
/// manager may be slow.
class IpReputationMsgHandler : public std::enable_shared_from_this<IpReputationMsgHandler> {
 public:
  /// `store` is null on a node without one: then there is never anything to report.
  IpReputationMsgHandler(AsioZemProvider& provider, std::shared_ptr<covedb::CoveDbClientInterface> store);
  virtual ~IpReputationMsgHandler();
  IpReputationMsgHandler(const IpReputationMsgHandler&) = delete;
  IpReputationMsgHandler& operator=(const IpReputationMsgHandler&) = delete;

  /// Returns false when the system gives no thread for the reports.
  [[nodiscard]] bool Start();
  /// Waits a second at most for reports that are being sent.
  void Stop();

 private:
  using Report = orlane::zem::firewall::IpReputationEventRequestMsg;

  void WatchStore();
  void Update(const orlane::zem::covedb::MonitorUpdateMsg& update);
  void TakeRecord(const orlane::zem::covedb::MonitorUpdateMsg& update);
  void ProcessIpReputationMessages();
  void ReportOnce();
  void SendDetached(const Report& report);

  const std::shared_ptr<covedb::CoveDbClientInterface> store_;
  std::shared_ptr<IpReputationMpChannel> channel_;
  std::atomic<uint32_t> curr_record_count_{0};
  StopSignal stop_;
  NativeThread reporter_;

  std::mutex mutex_;  // guards senders_
  Condition sender_ended_;
  int senders_ = 0;
};

}  // namespace zem::Tarvik
