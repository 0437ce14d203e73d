#pragma once

#include <mutex>

#include "platform/core/condition.h"

namespace zem {

/// A mutex that may be held across waits of the process's clock, for `std::lock_guard`; not recursive.
///
/// A virtual clock knows who waits for it.  A wait for a `std::mutex` is work for that clock: time would
/// stand still, and a holder that waits for a moment would wait for ever.
///
/// Threads: all operations from any thread; `lock` is a cancellation point.
class LongMutex {
 public:
  void lock() {
    std::unique_lock lock(mutex_);
    try {
      freed_.Wait(lock, [this] { return !held_; });
    } catch (...) {  // a cancellation; it may have taken the notification of another waiter
      if (!held_) freed_.NotifyOne();
      throw;
    }
    held_ = true;
  }

  void unlock() {
    const std::lock_guard lock(mutex_);
    held_ = false;
    freed_.NotifyOne();
  }

 private:
  std::mutex mutex_;  // guards held_
  Condition freed_;
  bool held_ = false;
};

}  // namespace zem
