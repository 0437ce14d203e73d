#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <string>

#include "platform/core/retry_policy.h"

namespace zem {

class AsioZemProvider;
class Timer;

/// What the app-init handshake needs of the client that it belongs to.
class AppInitPeer {
 public:
  virtual ~AppInitPeer() = default;

  /// Empty when there is no master.
  virtual std::string MasterAph() const = 0;
  virtual bool NeedsAppInit() const = 0;
  /// Returns 0 when the call has started.  Called with the app-init lock held.
  virtual int SendAppInitRequest(uint32_t sequence) = 0;
  /// Cancels the call of that handshake; returns false when it has ended.
  virtual bool CancelAppInitCall(uint32_t sequence) = 0;
  /// The handshake has succeeded, or is not needed.  Called with no lock held.
  virtual void SendRegistrationAck() = 0;
};

/// The app-init handshake of one vertical with the master APH.
///
/// Whatever makes a running handshake void takes a new sequence number; answers and timers carry the number
/// that they belong to and do nothing when it is no longer the last one.  Therefore no timer and no call has
/// to be found and stopped for correctness: cancelling only saves work.
///
/// Threads: all operations from any thread; the timers run on the provider.  The app-init lock is taken
/// before the locks of the stubs and of the calls.
class AppInit {
 public:
  AppInit(AppInitPeer& peer, AsioZemProvider& provider, std::string app_type);
  ~AppInit();

  /// The timers do nothing when `peer` has gone.  Called once, before all other operations.
  void SetOwner(std::weak_ptr<AppInitPeer> peer) { owner_ = std::move(peer); }

  /// Begins a handshake with the present master.
  void AppInitHandshake();
  /// Ends the handshake of that number with the given result.  Returns true when the vertical is initialised
  /// by it, false when it was already, or when the number is not the last one.
  bool CompleteAppInitHandshake(uint32_t sequence, bool success);
  /// Makes the running handshake void.
  uint32_t GetNewAppInitSequenceNumber();

  void HandleTnProxyConnected();
  /// `clean_up` runs with the app-init lock held, before the new sequence number is taken.
  template <class CleanUp>
  void HandleTnProxyDisconnected(CleanUp clean_up) {
    const std::lock_guard lock(mutex_);
    proxy_connected_ = false;
    completed_ = false;
    CancelTimers();
    clean_up();
    GetNewAppInitSequenceNumber();
  }
  void HandleClose();
  /// There is another master: the vertical is not initialised with it yet.
  void ForgetCompletion();
  /// The stream to the master has ended.
  void HandleMasterDown();

  bool completed() const;
  bool proxy_connected() const;
  /// Whether `aph` was the master of the last handshake.
  bool IsServing(const std::string& aph) const;

 private:
  // With the lock held.  Returns true when the registration ACK is due, which is sent after the lock.
  bool BeginLocked();
  void RetryAppInitHandshake(uint32_t sequence);
  void WaitForAppInitHandshakeCompletion(uint32_t sequence);
  void HandleAppInitSuccess();
  void CancelTimers();

  void WaitTnProxyTimeout(uint32_t sequence);
  void WaitAppInitTimeout(uint32_t sequence);
  /// Logs when it is not.
  bool IsCurrent(uint32_t sequence) const;

  AppInitPeer& peer_;
  AsioZemProvider& provider_;
  const std::string app_type_;
  std::weak_ptr<AppInitPeer> owner_;

  mutable std::shared_mutex mutex_;  // the app-init lock; guards what follows up to the sequence number
  bool completed_ = false;
  bool proxy_connected_ = false;
  std::string serving_aph_;
  std::shared_ptr<Timer> wait_tn_proxy_timer_;
  std::shared_ptr<Timer> app_init_timer_;
  uint32_t timer_sequence_ = 0;
  RetryPolicy retry_;

  std::atomic<uint32_t> app_init_seq_num_{0};
};

}  // namespace zem
