#pragma once

#include <atomic>
#include <mutex>

#include "platform/core/condition.h"

namespace IdsEvtEng {

/// Wakes a sender that else works once in a period.
///
/// Threads: `Set` and `Stop` from any thread; the others by the one that waits.
class ReadyFlag {
 public:
  /// Costs one load while the flag is set.
  void Set() {
    if (ready_.load(std::memory_order_acquire)) return;
    const std::lock_guard lock(mutex_);
    ready_ = true;
    changed_.NotifyAll();
  }
  void Clear() { ready_ = false; }

  void Stop() {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    changed_.NotifyAll();
  }

  /// Returns on a set flag or after the period; false after `Stop`.
  bool WaitFor(zem::Duration period) {
    std::unique_lock lock(mutex_);
    changed_.WaitFor(lock, period, [this] { return ready_ || stopped_; });
    return !stopped_;
  }

 private:
  std::mutex mutex_;  // guards the wait
  zem::Condition changed_;
  std::atomic<bool> ready_{false};
  bool stopped_ = false;
};

}  // namespace IdsEvtEng
