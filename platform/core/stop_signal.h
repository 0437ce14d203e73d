#pragma once

#include <mutex>

#include "platform/core/condition.h"

namespace zem {

/// The end of a loop, and the sleep of a loop that must end with it.
///
/// Threads: all operations from any thread.
class StopSignal {
 public:
  void Stop() {
    std::lock_guard lock(mutex_);
    stopped_ = true;
    changed_.NotifyAll();
  }

  /// For an owner that starts again after a stop.
  void Reset() {
    std::lock_guard lock(mutex_);
    stopped_ = false;
  }

  bool stopped() const {
    std::lock_guard lock(mutex_);
    return stopped_;
  }

  /// Sleeps; ends early and gives true when `Stop` is or was called.
  bool WaitFor(Duration duration) {
    std::unique_lock lock(mutex_);
    return changed_.WaitFor(lock, duration, [this] { return stopped_; });
  }

 private:
  mutable std::mutex mutex_;  // guards stopped_
  Condition changed_;
  bool stopped_ = false;
};

}  // namespace zem
