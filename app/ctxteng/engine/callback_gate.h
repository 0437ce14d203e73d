#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>

#include "platform/core/condition.h"

namespace Ctxt {

/// Counts the library's callbacks that run, so that a shutdown knows when the last one has left.
///
/// Threads: all operations from any thread.
class CallbackGate {
 public:
  /// A callback's stay.  False when the gate is closed: the callback then does nothing.
  class Pass {
   public:
    explicit Pass(CallbackGate& gate) : gate_(gate), inside_(gate.Enter()) {}
    ~Pass() {
      if (inside_) gate_.Leave();
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    explicit operator bool() const { return inside_; }

   private:
    CallbackGate& gate_;
    const bool inside_;
  };

  void Open() { state_ &= ~kClosed; }
  /// Waits until the callbacks that are inside have left.  False when some are still there after `patience`.
  [[nodiscard]] bool Close(std::chrono::nanoseconds patience) {
    std::unique_lock lock(mutex_);
    state_ |= kClosed;
    return left_.WaitFor(lock, patience, [this] { return (state_ & ~kClosed) == 0; });
  }

 private:
  static constexpr uint64_t kClosed = uint64_t{1} << 63;

  bool Enter() {
    if (((++state_) & kClosed) == 0) return true;
    Leave();
    return false;
  }
  void Leave() {
    if (--state_ != kClosed) return;
    std::lock_guard lock(mutex_);
    left_.NotifyAll();
  }

  std::atomic<uint64_t> state_{0};  // the callbacks inside, and whether the gate is closed
  std::mutex mutex_;
  zem::Condition left_;
};

}  // namespace Ctxt
