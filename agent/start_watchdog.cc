#include "agent/start_watchdog.h"

#include "framework/log/log.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};
constexpr auto kPatience = std::chrono::seconds(30);

}  // namespace

StartWatchdog::StartWatchdog() : entered_(Clock::Process().Now()) {
  NativeThread::Options options;
  options.name = "start-watch";
  thread_ = NativeThread(std::move(options), [this] { Watch(); });
}

StartWatchdog::~StartWatchdog() { stop_.Stop(); }

void StartWatchdog::Enter(const char* step) {
  std::lock_guard lock(mutex_);
  step_ = step;
  entered_ = Clock::Process().Now();
}

void StartWatchdog::Watch() {
  while (!stop_.WaitFor(kPatience)) {
    std::lock_guard lock(mutex_);
    const auto waited = Clock::Process().Now() - entered_;
    if (waited < kPatience) continue;
    ZLOG_WARN("The start has been at the step \"%s\" for %ld seconds", step_,
              static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(waited).count()));
  }
}

}  // namespace zem::Tarvik
