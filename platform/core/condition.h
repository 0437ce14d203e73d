#pragma once

#include <list>
#include <memory>
#include <mutex>

#include "platform/core/clock.h"

namespace zem {

/// A condition variable over the process's clock; works with any lock that has `lock` and `unlock`.
///
/// A waiting thread is known to a virtual clock; a notification counts as work from the moment it is given,
/// so time cannot slip by between the notification and the waiter's waking.  A wait is a cancellation point:
/// a cancelled waiter holds its lock again while it unwinds.
class Condition {
 public:
  Condition();
  ~Condition();
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  void NotifyOne();
  void NotifyAll();

  /// Waits for a notification; like every condition variable it may return without one.
  template <class Lock>
  void Wait(Lock& lock) {
    LockOf<Lock> user(lock);
    Block(user, nullptr);
  }

  template <class Lock, class Predicate>
  void Wait(Lock& lock, Predicate ready) {
    while (!ready()) Wait(lock);
  }

  /// False when `deadline` has passed without a notification.
  template <class Lock>
  bool WaitUntil(Lock& lock, TimePoint deadline) {
    LockOf<Lock> user(lock);
    return Block(user, &deadline);
  }

  /// Waits until `ready()` or the deadline; gives `ready()`.
  template <class Lock, class Predicate>
  bool WaitUntil(Lock& lock, TimePoint deadline, Predicate ready) {
    while (!ready()) {
      if (!WaitUntil(lock, deadline)) return ready();
    }
    return true;
  }

  template <class Lock, class Predicate>
  bool WaitFor(Lock& lock, Duration duration, Predicate ready) {
    return WaitUntil(lock, Clock::Process().Now() + duration, ready);
  }

 private:
  struct Waiter;
  struct Waiting;
  struct UserLock {
    virtual ~UserLock() = default;
    virtual void Acquire() = 0;
    virtual void Release() = 0;
  };
  template <class Lock>
  struct LockOf final : UserLock {
    explicit LockOf(Lock& l) : lock(l) {}
    void Acquire() override { lock.lock(); }
    void Release() override { lock.unlock(); }
    Lock& lock;
  };

  bool Block(UserLock& user, const TimePoint* deadline);

  std::shared_ptr<Waiting> waiting_;  // shared with alarms, which may outlive the condition
};

}  // namespace zem
