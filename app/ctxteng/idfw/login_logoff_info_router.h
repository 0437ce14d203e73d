#pragma once

#include <cstdint>
#include <memory>

#include "app/ctxteng/idfw/ilogin_logoff_event_listener.h"
#include "platform/core/thread.h"

namespace Ctxt {

class CtxtChannel;
class LoginLogoffInfoCache;
class LoginLogoffInfoMessenger;
struct LoginLogoffSignal;

/// The delivery of logons to the manager: the cache, what fills it, what empties it, and the thread that
/// sends when a timer or a full cache says so.  After a failure the timer's interval doubles until it passes
/// its bound; then it begins anew.
///
/// Threads: constructed, started and destroyed by the owner.  The destructor ends a wait and joins the
/// thread.
class LoginLogoffInfoRouter {
 public:
  struct Settings {
    uint32_t cache_limit;
    uint32_t timer_interval;   // seconds
    uint32_t ack_timeout;      // seconds
    uint32_t cache_threshold;  // percent of the limit
    /// The highest multiple of the interval that is still followed by a try.
    uint32_t max_backoff_counter;
  };

  /// `channel` outlives the router.
  LoginLogoffInfoRouter(const Settings& settings, CtxtChannel& channel);
  ~LoginLogoffInfoRouter();
  LoginLogoffInfoRouter(const LoginLogoffInfoRouter&) = delete;
  LoginLogoffInfoRouter& operator=(const LoginLogoffInfoRouter&) = delete;

  /// Registers with the channel.  Throws CtxtChannelError.
  void Connect();
  /// Starts the thread.  Throws CtxtBoostThreadResourceError.
  void Start();

  ILoginLogoffEventListener& listener() { return *listener_; }
  const LoginLogoffInfoCache& cache() const { return *cache_; }
  const LoginLogoffInfoMessenger& messenger() const { return *messenger_; }

 private:
  void Run();
  void SendStep();

  const Settings settings_;
  const std::shared_ptr<LoginLogoffSignal> signal_;
  const std::shared_ptr<LoginLogoffInfoCache> cache_;
  const std::shared_ptr<ILoginLogoffEventListener> listener_;
  const std::shared_ptr<LoginLogoffInfoMessenger> messenger_;
  uint64_t backoff_counter_ = 1;  // of the thread
  zem::NativeThread thread_;
};

}  // namespace Ctxt
