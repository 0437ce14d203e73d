#include "app/ctxteng/idfw/login_logoff_info_router.h"

#include <algorithm>
#include <chrono>
#include <system_error>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/idfw/login_logoff_event_listener.h"
#include "app/ctxteng/idfw/login_logoff_info_cache.h"
#include "app/ctxteng/idfw/login_logoff_info_messenger.h"
#include "app/ctxteng/idfw/login_logoff_signal.h"
#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

// The options' numbers have no bound of their own.
constexpr uint64_t kLongestSleepS = uint64_t{24} * 3600;

}  // namespace

LoginLogoffInfoRouter::LoginLogoffInfoRouter(const Settings& settings, CtxtChannel& channel)
    : settings_(settings),
      signal_(std::make_shared<LoginLogoffSignal>()),
      cache_(std::make_shared<LoginLogoffInfoCache>(settings.cache_limit, settings.cache_threshold, signal_)),
      listener_(std::make_shared<LoginLogoffEventListener>(cache_)),
      messenger_(std::make_shared<LoginLogoffInfoMessenger>(channel, settings.ack_timeout, signal_)) {}

LoginLogoffInfoRouter::~LoginLogoffInfoRouter() {
  {
    std::lock_guard lock(signal_->mutex);
    signal_->stopped = true;
    signal_->changed.NotifyAll();
  }
  try {
    if (thread_.joinable()) thread_.Join();
  } catch (const std::system_error& error) {
    ZLOG_CTX_ERROR(576, "Idfw: Failed during thread join");
    ZLOG_WARN("Idfw: %s", error.what());
  }
  messenger_->Disconnect();
}

void LoginLogoffInfoRouter::Connect() { messenger_->Connect(); }

void LoginLogoffInfoRouter::Start() {
  try {
    zem::NativeThread::Options options;
    options.name = "ctxt:idfw";
    thread_ = zem::NativeThread(std::move(options), [this] { Run(); });
  } catch (const std::system_error& error) {
    throw CtxtBoostThreadResourceError(error.what());
  }
}

void LoginLogoffInfoRouter::Run() {
  const zem::LoopThread loop("ctxt:idfw", zem::LoopKind::kWorker);
  for (;;) {
    const uint64_t sleep_s = std::min(backoff_counter_ * settings_.timer_interval, kLongestSleepS);
    bool threshold = false;
    {
      std::unique_lock lock(signal_->mutex);
      signal_->changed.WaitFor(lock, std::chrono::seconds(sleep_s),
                               [this] { return signal_->threshold_passed || signal_->stopped; });
      if (signal_->stopped) return;
      // With a manager that does not answer the cache stays above its threshold: only the passing of it ends
      // a wait, or the failures would follow each other without a pause.
      threshold = std::exchange(signal_->threshold_passed, false);
    }
    if (threshold) {
      ZLOG_INFO("Idfw: Cache reached the threshold of %u percent. Sending login/logoff info to ZEM manager.",
                cache_->cache_threshold());
    } else {
      ZLOG_INFO("Idfw: Timer expired. SleepDuration is %u. Sending login/logoff info to ZEM manager.",
                static_cast<uint32_t>(sleep_s));
    }
    SendStep();
  }
}

void LoginLogoffInfoRouter::SendStep() {
  const zem::LoopStep step("send logons");
  if (backoff_counter_ > settings_.max_backoff_counter) {
    backoff_counter_ = 1;
    ZLOG_INFO("Idfw: Reach the max retry for sending a login/logoff msg to MP. Restart backoff counts");
    return;
  }
  if (!messenger_->SendNext(*cache_, !cache_->IsFull())) {
    ZLOG_WARN("Idfw: Failed to send the login/logoff msg to ZEM manager, will try again");
    backoff_counter_ *= 2;
    return;
  }
  backoff_counter_ = 1;
  // What has come while an older batch was on its way waits no longer than it has to.
  if (!cache_->IsThresholdReached()) return;
  std::lock_guard lock(signal_->mutex);
  signal_->threshold_passed = true;
}

}  // namespace Ctxt
