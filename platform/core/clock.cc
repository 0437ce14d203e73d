#include "platform/core/clock.h"

#include <atomic>
#include <cassert>
#include <cstdlib>

#include "platform/core/clock_factor.h"

namespace zem {
namespace {

constexpr double kFastest = 100;

double FactorFromEnvironment() {
  const char* const text = std::getenv(kClockFactorVariable);
  const double factor = text == nullptr ? 1 : std::atof(text);
  return factor >= 1 && factor <= kFastest ? factor : 1;
}

class RealClock final : public Clock {
 public:
  TimePoint Now() const override {
    return TimePoint(Scaled(std::chrono::steady_clock::now().time_since_epoch()));
  }
  WallTime WallNow() const override {
    const Duration steady = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::system_clock::now() +
           std::chrono::duration_cast<WallTime::duration>(Scaled(steady) - steady);
  }
  TimePoint OnMachine(TimePoint time) const override {
    if (Factor() == 1 || time == TimePoint::max()) return time;
    return TimePoint(std::chrono::duration_cast<Duration>(time.time_since_epoch() / Factor()));
  }
  WallTime FromMachine(WallTime time) const override {
    if (Factor() == 1) return time;
    const Duration ago = std::chrono::system_clock::now() - time;
    const Duration steady = std::chrono::steady_clock::now().time_since_epoch() - ago;
    return time + std::chrono::duration_cast<WallTime::duration>(Scaled(steady) - steady);
  }

 private:
  // From the machine's start on, so that it is the same time in every process.
  Duration Scaled(Duration since_start) const {
    return Factor() == 1 ? since_start : std::chrono::duration_cast<Duration>(since_start * Factor());
  }

  // Read when the time is asked for the first time: a program may have a thread before it knows how fast its
  // child is to live.
  static double Factor() {
    static const double factor = FactorFromEnvironment();
    return factor;
  }
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
