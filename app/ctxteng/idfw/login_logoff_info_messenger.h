#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "app/ctxteng/idfw/base_login_logoff_info_messenger.h"

namespace Ctxt {

class CtxtChannel;
class LoginLogoffInfoCache;
struct LoginLogoffSignal;

/// Brings batches of logons to the manager, one at a time.  A batch that is not acknowledged stays pending
/// and is sent again as it is, with the same correlation id.
///
/// Threads: `SendNext` and `Send` by the delivery's thread; acknowledgements on the channel's.
class LoginLogoffInfoMessenger final : public BaseLoginLogoffInfoMessenger,
                                       public std::enable_shared_from_this<LoginLogoffInfoMessenger> {
 public:
  /// `channel` outlives the messenger.  `ack_timeout` is in seconds.
  LoginLogoffInfoMessenger(CtxtChannel& channel, uint32_t ack_timeout,
                           std::shared_ptr<LoginLogoffSignal> signal);
  ~LoginLogoffInfoMessenger() override;

  /// Throws CtxtChannelError.
  void Connect() override;
  void Disconnect() override;
  bool Send() override;
  std::shared_ptr<CtxtMsg> MakeMessage(const std::shared_ptr<EventMsg>& events) override;

  /// Sends the pending batch; without one, or when it is not to be tried again, all that the cache holds, in
  /// as many messages as that needs.  False when one was not acknowledged.
  bool SendNext(LoginLogoffInfoCache& cache, bool retry_pending);

  /// Events of batches that gave way to newer ones, ever.
  uint64_t replaced() const { return replaced_; }

 private:
  using AckHandler = std::function<bool()>;

  void Receive(const CtxtMsg& message);
  bool Check(const std::string& correlation_id, int32_t status, const std::string& error) const;
  void TakeBatch(LoginLogoffInfoCache& cache);
  std::shared_ptr<EventMsg> Drain(LoginLogoffInfoCache& cache);

  CtxtChannel& channel_;
  std::shared_ptr<CtxtMsg> pending_msg_;
  std::shared_ptr<EventMsg> pending_event_msg_;
  bool more_ = false;  // waited in the cache when the pending batch was full
  uint64_t next_correlation_id_ = 0;
  const uint32_t ack_timeout_;
  AckHandler ack_handler_;  // under the signal's mutex
  const std::shared_ptr<LoginLogoffSignal> signal_;
  std::set<std::string> nameless_;  // guests whose ids are no uuids
  std::atomic<uint64_t> replaced_{0};
};

}  // namespace Ctxt
