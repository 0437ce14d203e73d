#include "platform/core/clock.h"

#include <atomic>
#include <cassert>

namespace zem {
namespace {

class RealClock final : public Clock {
 public:
  TimePoint Now() const override { return std::chrono::steady_clock::now(); }
  WallTime WallNow() const override { return std::chrono::system_clock::now(); }
};

Clock& Real() {
  static auto* const real = new RealClock;  // outlives every static that logs at exit
  return *real;
}

std::atomic<Clock*>& Installed() {
  static std::atomic<Clock*> installed{nullptr};
  return installed;
}

}  // namespace

Clock& Clock::Process() {
  Clock* clock = Installed().load(std::memory_order_acquire);
  return clock != nullptr ? *clock : Real();
}

void Clock::Install(Clock* clock) { Installed().store(clock, std::memory_order_release); }

Clock::AlarmId Clock::SetAlarm(TimePoint, AlarmFunction) {
  assert(false && "alarms exist on a virtual clock only");
  return 0;
}

bool Clock::CancelAlarm(AlarmId) { return false; }

Clock::WatchId Clock::Watch(const pollfd*, size_t) { return 0; }

WorkToken::WorkToken() : clock_(&Clock::Process()) {
  if (clock_->IsVirtual()) {
    clock_->BeginWork();
  } else {
    clock_ = nullptr;
  }
}

WorkToken::WorkToken(WorkToken&& other) noexcept : clock_(other.clock_) { other.clock_ = nullptr; }

WorkToken::~WorkToken() {
  if (clock_ != nullptr) clock_->EndWork();
}

}  // namespace zem
