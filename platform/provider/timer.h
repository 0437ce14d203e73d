#pragma once

#include <functional>
#include <memory>

#include "platform/core/clock.h"

namespace zem {

/// A scheduled call.  Dropping the last handle does not cancel it.
class Timer {
 public:
  virtual ~Timer() = default;

  /// When this returns the function does not start any more, unless it had started already.  From any thread,
  /// from inside the function too; more than once.
  virtual void Cancel() = 0;
};

struct TimerOptions {
  static const TimerOptions Default;
};

/// Timers of one provider; functions run on its threads, never in the caller's stack.
///
/// Threads: all operations from any thread.
class TimerFactory {
 public:
  virtual ~TimerFactory() = default;

  virtual std::shared_ptr<Timer> Schedule(Duration delay, std::function<void()> function) = 0;

  /// Each next call is due a period after the one before was due, so the pace does not drift; a call that
  /// could not run in time swallows those that fell due meanwhile.  Calls of one timer never overlap.
  virtual std::shared_ptr<Timer> ScheduleRepeated(Duration period, std::function<void()> function,
                                                  const TimerOptions& options) = 0;
};

/// Runs functions on a provider's threads in the order of posting (on a provider of one thread also in that
/// order one after the other).
class Dispatcher {
 public:
  virtual ~Dispatcher() = default;
  virtual void Post(std::function<void()> function) = 0;
};

}  // namespace zem
