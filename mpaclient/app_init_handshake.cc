// The app-init handshake of the manager client.  Whatever makes a running handshake void takes a new sequence
// number; answers and timers carry the number they belong to and do nothing when it is no longer the last
// one.  That is why no timer and no call has to be found and stopped for correctness: cancelling only saves
// work.

#include "framework/log/log.h"
#include "mpaclient/mpa_client.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"

namespace zem {
namespace {

constexpr LogSource kLog{"mpa-client"};

constexpr Duration kAppInitTimeout = std::chrono::seconds(30);

}  // namespace

uint32_t MpaClient::GetNewAppInitSequenceNumber() {
  const uint32_t sequence = app_init_seq_num_.fetch_add(1);
  ZLOG_DEBUG("[%s] GetNewAppInitSequenceNumber (%d)", app_type_.c_str(), static_cast<int>(sequence));
  return sequence;
}

bool MpaClient::IsCurrent(uint32_t sequence) const {
  const uint32_t current = app_init_seq_num_.load();
  if (sequence + 1 == current) return true;
  ZLOG_INFO("[%s] AppInit sequence is not current seq: (%d), current: (%d)", app_type_.c_str(),
            static_cast<int>(sequence), static_cast<int>(current));
  return false;
}

bool MpaClient::app_init_completed() const {
  std::shared_lock lock(app_init_mutex_);
  return app_init_completed_;
}

// With the app-init lock held.
void MpaClient::WaitForAppInitHandshakeCompletion(uint32_t sequence) {
  if (app_init_timer_) {
    app_init_timer_->Cancel();
    if (auto last = GetFromAppSpecificSeqToCallHandleMap(timer_sequence_)) {
      ZLOG_INFO("[%s] Cancelling last RPC call handle for seq %d", app_type_.c_str(),
                static_cast<int>(timer_sequence_));
      ZLOG_INFO("[%s] CancelAppInitCall", app_type_.c_str());
      last.Cancel();
    }
  }
  app_init_timer_ = timer_provider().timers().Schedule(kAppInitTimeout, [weak = self_, sequence] {
    if (const auto self = weak.lock()) self->WaitAppInitTimeout(sequence);
  });
  timer_sequence_ = sequence;
}

void MpaClient::WaitAppInitTimeout(uint32_t sequence) {
  const char* const name = app_type_.c_str();
  ZLOG_INFO("[%s] AppInitHandshake timed-out. Seq (%d)", name, static_cast<int>(sequence));
  bool ack = false;
  {
    std::lock_guard lock(app_init_mutex_);
    if (app_init_completed_) {
      ZLOG_INFO("[%s] WaitAppInitTimeout AppInit already completed (%d)", name, static_cast<int>(sequence));
      return;
    }
    ZLOG_DEBUG("[%s] WaitAppInitTimeout AppInit Handshake has timed out.", name);
    if (!IsCurrent(sequence)) {
      ZLOG_INFO("[%s] WaitAppInitTimeout seq (%d) is not current (%d)", name, static_cast<int>(sequence),
                static_cast<int>(app_init_seq_num_.load()));
      return;
    }
    ZLOG_INFO("[%s] WaitAppInitTimeout Starting a new AppInitHandshake.", name);
    ack = AppInitHandshakeLocked();
  }
  if (ack) SendRegistrationAck();
}

// With the app-init lock held.
void MpaClient::RetryAppInitHandshakeLocked(uint32_t sequence) {
  ZLOG_INFO("[%s] MpaClient::RetryAppInitHandshake", app_type_.c_str());
  if (app_init_completed_) {
    ZLOG_INFO("[%s] MpaClient::RetryAppInitHandshake appInitCompleted_ is [%d], not retrying app-init",
              app_type_.c_str(), app_init_completed_);
    return;
  }
  if (wait_tn_proxy_timer_) wait_tn_proxy_timer_->Cancel();
  wait_tn_proxy_timer_ = timer_provider().timers().Schedule(
      std::chrono::milliseconds(app_init_retry_.NextDelay()), [weak = self_, sequence] {
        if (const auto self = weak.lock()) self->WaitTnProxyTimeout(sequence);
      });
}

void MpaClient::WaitTnProxyTimeout(uint32_t sequence) {
  const char* const name = app_type_.c_str();
  ZLOG_INFO("[%s] Starting AppInitHandshake from timer", name);
  bool ack = false;
  {
    std::lock_guard lock(app_init_mutex_);
    if (!IsCurrent(sequence)) {
      ZLOG_INFO("[%s] WaitTnProxyTimeout seq (%d) is not current (%d)", name, static_cast<int>(sequence),
                static_cast<int>(app_init_seq_num_.load()));
      return;
    }
    if (!proxy_connected_) {
      ZLOG_INFO("[%s] WaitTnProxyTimeout : Not Connected with TnProxy", name);
      return;
    }
    ack = AppInitHandshakeLocked();
  }
  if (ack) SendRegistrationAck();
}

bool MpaClient::CompleteAppInitHandshake(uint32_t sequence, bool success) {
  const char* const name = app_type_.c_str();
  ZLOG_INFO("%s CompleteAppInitHanshake, Seq (%d) (%s)", name, static_cast<int>(sequence),
            success ? "Success" : "Failed");
  std::lock_guard lock(app_init_mutex_);
  if (app_init_completed_) return false;
  if (!IsCurrent(sequence)) {
    ZLOG_WARN("[%s] CompleteAppInitHanshake : AppInit Sequence number has moved ahead seq (%d), current (%d)",
              name, static_cast<int>(sequence), static_cast<int>(app_init_seq_num_.load()));
    return false;
  }
  ZLOG_DEBUG("[%s] CompleteAppInitHanshake : Completed successfully seq (%d)", name,
             static_cast<int>(sequence));
  if (app_init_timer_) app_init_timer_->Cancel();
  app_init_timer_.reset();
  if (!success) {
    RetryAppInitHandshakeLocked(sequence);
    return false;
  }
  HandleAppInitSuccess();
  return true;
}

// With the app-init lock held.
void MpaClient::CancelAppInitTimersLocked() {
  if (wait_tn_proxy_timer_) wait_tn_proxy_timer_->Cancel();
  if (app_init_timer_) app_init_timer_->Cancel();
  wait_tn_proxy_timer_.reset();
  app_init_timer_.reset();
}

// With the app-init lock held.
void MpaClient::HandleAppInitSuccess() {
  ZLOG_INFO("[%s] HandleAppInitSuccess", app_type_.c_str());
  app_init_completed_ = true;
  app_init_retry_.Reset();
}

}  // namespace zem
