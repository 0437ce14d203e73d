#include "mpaclient/app_init.h"

#include <mutex>

#include "framework/log/log.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"

namespace zem {
namespace {

constexpr LogSource kLog{"mpa-client"};

constexpr Duration kAppInitTimeout = std::chrono::seconds(30);

}  // namespace

AppInit::AppInit(AppInitPeer& peer, AsioZemProvider& provider, std::string app_type)
    : peer_(peer), provider_(provider), app_type_(std::move(app_type)), retry_(10000, 30000, 2.0, -1) {}

AppInit::~AppInit() = default;

uint32_t AppInit::GetNewAppInitSequenceNumber() {
  const uint32_t sequence = app_init_seq_num_.fetch_add(1);
  ZLOG_DEBUG("[%s] GetNewAppInitSequenceNumber (%d)", app_type_.c_str(), static_cast<int>(sequence));
  return sequence;
}

bool AppInit::IsCurrent(uint32_t sequence) const {
  const uint32_t current = app_init_seq_num_.load();
  if (sequence + 1 == current) return true;
  ZLOG_INFO("[%s] AppInit sequence is not current seq: (%d), current: (%d)", app_type_.c_str(),
            static_cast<int>(sequence), static_cast<int>(current));
  return false;
}

bool AppInit::completed() const {
  const std::shared_lock lock(mutex_);
  return completed_;
}

bool AppInit::proxy_connected() const {
  const std::shared_lock lock(mutex_);
  return proxy_connected_;
}

bool AppInit::IsServing(const std::string& aph) const {
  const std::shared_lock lock(mutex_);
  return aph == serving_aph_;
}

void AppInit::HandleTnProxyConnected() {
  const std::lock_guard lock(mutex_);
  proxy_connected_ = true;
  CancelTimers();
}

void AppInit::HandleClose() {
  const std::lock_guard lock(mutex_);
  CancelTimers();
  completed_ = false;
}

void AppInit::ForgetCompletion() {
  const std::lock_guard lock(mutex_);
  completed_ = false;
}

void AppInit::HandleMasterDown() {
  const std::lock_guard lock(mutex_);
  completed_ = false;
  if (wait_tn_proxy_timer_) wait_tn_proxy_timer_->Cancel();
  wait_tn_proxy_timer_.reset();
}

void AppInit::AppInitHandshake() {
  bool ack = false;
  {
    const std::lock_guard lock(mutex_);
    ack = BeginLocked();
  }
  if (ack) peer_.SendRegistrationAck();
}

// With the app-init lock held.
bool AppInit::BeginLocked() {
  const char* const name = app_type_.c_str();
  ZLOG_DEBUG("[%s] MpaClientPrivate AppInitHandshake - Begin", name);
  serving_aph_ = peer_.MasterAph();
  if (!peer_.NeedsAppInit()) {
    HandleAppInitSuccess();
    return true;
  }
  uint32_t sequence = GetNewAppInitSequenceNumber();
  // An observer with sequence 0 belongs to no handshake.
  if (sequence == 0) sequence = GetNewAppInitSequenceNumber();
  ZLOG_INFO("[%s] MpaClientPrivate AppInitHandshake : seq: %d", name, static_cast<int>(sequence));
  if (peer_.SendAppInitRequest(sequence) == 0) {
    WaitForAppInitHandshakeCompletion(sequence);
    ZLOG_DEBUG("[%s] MpaClientPrivate AppInitHandshake : End", name);
    return false;
  }
  ZLOG_INFO("[%s] MpaClientPrivate AppInitHandshake Failed, retry", name);
  if (IsCurrent(sequence)) {
    RetryAppInitHandshake(sequence);
  } else {
    ZLOG_INFO(
        "[%s] MpaClientPrivate AppInitHandshake : Not retrying app-init, curr-seq: (%d) is different from "
        "app_init_seq_num_",
        name, static_cast<int>(sequence));
  }
  return false;
}

// With the app-init lock held.
void AppInit::WaitForAppInitHandshakeCompletion(uint32_t sequence) {
  if (app_init_timer_) {
    app_init_timer_->Cancel();
    peer_.CancelAppInitCall(timer_sequence_);
  }
  app_init_timer_ = provider_.timers().Schedule(kAppInitTimeout, [this, owner = owner_, sequence] {
    if (const auto alive = owner.lock()) WaitAppInitTimeout(sequence);
  });
  timer_sequence_ = sequence;
}

void AppInit::WaitAppInitTimeout(uint32_t sequence) {
  const char* const name = app_type_.c_str();
  ZLOG_INFO("[%s] AppInitHandshake timed-out. Seq (%d)", name, static_cast<int>(sequence));
  bool ack = false;
  {
    std::lock_guard lock(mutex_);
    if (completed_) {
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
    ack = BeginLocked();
  }
  if (ack) peer_.SendRegistrationAck();
}

// With the app-init lock held.
void AppInit::RetryAppInitHandshake(uint32_t sequence) {
  ZLOG_INFO("[%s] MpaClient::RetryAppInitHandshake", app_type_.c_str());
  if (completed_) {
    ZLOG_INFO("[%s] MpaClient::RetryAppInitHandshake appInitCompleted_ is [%d], not retrying app-init",
              app_type_.c_str(), completed_);
    return;
  }
  if (wait_tn_proxy_timer_) wait_tn_proxy_timer_->Cancel();
  wait_tn_proxy_timer_ = provider_.timers().Schedule(std::chrono::milliseconds(retry_.NextDelay()),
                                                     [this, owner = owner_, sequence] {
                                                       if (const auto alive = owner.lock())
                                                         WaitTnProxyTimeout(sequence);
                                                     });
}

void AppInit::WaitTnProxyTimeout(uint32_t sequence) {
  const char* const name = app_type_.c_str();
  ZLOG_INFO("[%s] Starting AppInitHandshake from timer", name);
  bool ack = false;
  {
    std::lock_guard lock(mutex_);
    if (!IsCurrent(sequence)) {
      ZLOG_INFO("[%s] WaitTnProxyTimeout seq (%d) is not current (%d)", name, static_cast<int>(sequence),
                static_cast<int>(app_init_seq_num_.load()));
      return;
    }
    if (!proxy_connected_) {
      ZLOG_INFO("[%s] WaitTnProxyTimeout : Not Connected with TnProxy", name);
      return;
    }
    ack = BeginLocked();
  }
  if (ack) peer_.SendRegistrationAck();
}

bool AppInit::CompleteAppInitHandshake(uint32_t sequence, bool success) {
  const char* const name = app_type_.c_str();
  ZLOG_INFO("%s CompleteAppInitHanshake, Seq (%d) (%s)", name, static_cast<int>(sequence),
            success ? "Success" : "Failed");
  std::lock_guard lock(mutex_);
  if (completed_) return false;
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
    RetryAppInitHandshake(sequence);
    return false;
  }
  HandleAppInitSuccess();
  return true;
}

// With the app-init lock held.
void AppInit::CancelTimers() {
  if (wait_tn_proxy_timer_) wait_tn_proxy_timer_->Cancel();
  if (app_init_timer_) app_init_timer_->Cancel();
  wait_tn_proxy_timer_.reset();
  app_init_timer_.reset();
}

// With the app-init lock held.
void AppInit::HandleAppInitSuccess() {
  ZLOG_INFO("[%s] HandleAppInitSuccess", app_type_.c_str());
  completed_ = true;
  retry_.Reset();
}

}  // namespace zem
