#include "agent/service_notifier.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <utility>
#include <vector>

#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "platform/provider/provider.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};
constexpr int kFeedsPerTimeout = 4;
constexpr int kHangsPerTimeout = 2;
constexpr const char* kServing = "Serving";
constexpr const char* kStopping = "Stopping";

// The children of the daemon do not inherit the variables.
Duration WatchdogOfService() {
  uint64_t microseconds = 0;
  return ::sd_watchdog_enabled(1, &microseconds) > 0 ? std::chrono::microseconds(microseconds) : Duration{};
}

// A failure has no consequence here: a service manager that is not told acts on that.
void Tell(const std::string& state) { ::sd_notify(0, state.c_str()); }

}  // namespace

ServiceNotifier::ServiceNotifier() : watchdog_(WatchdogOfService()) {}

ServiceNotifier::~ServiceNotifier() { stop_.Stop(); }

void ServiceNotifier::TellStatus(const std::string& text) { Tell("STATUS=" + text); }

void ServiceNotifier::Starting(const char* step) { TellStatus(std::string("Starting: ") + step); }

// A line break would end the status.
void ServiceNotifier::NotStarted(std::string reason) {
  while (reason.ends_with('\n')) reason.pop_back();
  std::replace(reason.begin(), reason.end(), '\n', ' ');
  TellStatus("Not started: " + reason);
}

void ServiceNotifier::Serving(AsioZemProvider& provider) {
  {
    const std::lock_guard lock(mutex_);
    provider_ = &provider;
  }
  Tell(std::string("READY=1\nSTATUS=") + kServing);
  if (watchdog_ == Duration{}) return;
  NativeThread::Options options;
  options.name = "watchdog";
  thread_ = NativeThread(std::move(options), [this] { Feed(); });
}

void ServiceNotifier::Stopping() {
  const std::lock_guard lock(mutex_);
  provider_ = nullptr;
  TellStatus(kStopping);
}

std::string ServiceNotifier::HungLoop(std::span<const LoopReading> loops, Duration limit) {
  for (const LoopReading& loop : loops) {
    if (loop.kind != LoopKind::kPrompt || !loop.busy || loop.age < limit) continue;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(loop.age).count();
    return "loop \"" + loop.name + "\" has been in one step for " + std::to_string(seconds) +
           " seconds: " + loop.step;
  }
  return {};
}

const char* ServiceNotifier::Phase() {
  const std::lock_guard lock(mutex_);
  return provider_ != nullptr ? kServing : kStopping;
}

// Loops that wait are asked, too: the provider has to run what the call before has posted to it.
std::string ServiceNotifier::WhatHangs() {
  std::string hung = HungLoop(LoopThread::ReadAll(), watchdog_ / kHangsPerTimeout);
  const std::lock_guard lock(mutex_);
  if (provider_ == nullptr) return hung;
  if (hung.empty() && answered_->load() < asked_) hung = "the event provider runs nothing";
  boost::asio::post(provider_->io(), [answered = answered_, number = ++asked_] { answered->store(number); });
  return hung;
}

void ServiceNotifier::Feed() {
  bool told = false;
  do {
    const std::string hung = WhatHangs();
    if (hung.empty()) {
      std::string fed = "WATCHDOG=1";
      if (told) fed.append("\nSTATUS=").append(Phase());
      Tell(fed);
      if (told) ZLOG_INFO("All loops run again, the service manager's watchdog is fed");
      told = false;
    } else if (!told) {
      told = true;
      ZLOG_ERROR("OPS00304", "The service manager's watchdog is not fed: %s", hung.c_str());
      TellStatus("Hanging: " + hung);
    }
  } while (!stop_.WaitFor(watchdog_ / kFeedsPerTimeout));
}

}  // namespace zem::Tarvik
