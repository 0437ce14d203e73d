#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

struct pollfd;

namespace zem {

using Duration = std::chrono::nanoseconds;
using TimePoint = std::chrono::steady_clock::time_point;
using WallTime = std::chrono::system_clock::time_point;

/// The one source of time.  Everything that waits, times out or stamps asks the clock of its process, so that
/// a test can hold time in its hand.
///
/// Threads: all operations from any thread.
class Clock {
 public:
  using AlarmFunction = std::function<void()>;
  using AlarmId = uint64_t;

  virtual ~Clock() = default;

  /// The process's clock: the real one unless a VirtualClock exists.  The real one runs ZEM_CLOCK_FACTOR (1
  /// to 100) times as fast as the machine's when the environment says so: whoever has to wait, in a test or
  /// for a simulated node, waits less.  Processes of one factor agree on the time.
  static Clock& Process();

  virtual TimePoint Now() const = 0;
  virtual WallTime WallNow() const = 0;

  /// When it is `time` here, on the steady clock by which the operating system wakes waiters.
  virtual std::chrono::steady_clock::time_point OnMachine(TimePoint time) const { return time; }

  /// What the wall shows here when the machine's shows `time`: for the stamps that the kernel gives files.
  virtual WallTime FromMachine(WallTime time) const { return time; }

  /// True when time moves only while everybody waits.  The operations below then have an effect; on the real
  /// clock they do nothing, because the operating system wakes the waiters.
  virtual bool IsVirtual() const { return false; }

  /// Calls `function` once when time has reached `due`.  It runs on a foreign thread's stack and may only
  /// take leaf locks: wake somebody, post something.
  virtual AlarmId SetAlarm(TimePoint due, AlarmFunction function);

  /// False when the alarm has run or is running.
  virtual bool CancelAlarm(AlarmId id);

  /// Work that is under way or on its way to a thread; time stands still while there is any.
  virtual void BeginWork() {}
  virtual void EndWork() {}

  /// Descriptors that a thread is about to wait for without counting as working: what is in them is work on
  /// its way to that thread.
  using WatchId = uint64_t;
  virtual WatchId Watch(const pollfd* descriptors, size_t count);
  virtual void Unwatch(WatchId) {}

 protected:
  static void Install(Clock* clock);
};

/// Makes the process's virtual clock hold still for its lifetime.  Nothing on the real clock.
class WorkToken {
 public:
  WorkToken();
  ~WorkToken();
  WorkToken(WorkToken&& other) noexcept;
  WorkToken& operator=(WorkToken&&) = delete;
  WorkToken(const WorkToken&) = delete;
  WorkToken& operator=(const WorkToken&) = delete;

 private:
  Clock* clock_;
};

}  // namespace zem
