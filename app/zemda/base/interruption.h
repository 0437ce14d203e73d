#pragma once

#include <functional>
#include <mutex>

#include "platform/core/clock.h"
#include "platform/core/condition.h"
#include "platform/core/unique_fd.h"

namespace ZemDa {

/// Leaves a thread's body at an interruption point.  No std::exception, so that what handles errors does not
/// take it for one.
struct Interrupted {};

/// A request to a thread to leave what it is waiting for: to end, or to begin its wait anew.  One request
/// interrupts one wait, the running one or the next.
///
/// Threads: `Request` from any thread; all others by the thread that is interrupted.
class Interruption {
 public:
  /// Throws std::system_error when the system has no descriptor left.
  Interruption();

  void Request();

  /// Throws Interrupted when an interruption is requested.
  void Point();
  /// Sleeps on the process's clock; throws Interrupted.
  void SleepFor(zem::Duration duration);
  /// Sleeps until it is interrupted; throws Interrupted.
  void Sleep();

  /// Readable while an interruption is requested, for waits on descriptors.
  int descriptor() const { return wake_.get(); }

  /// While it lives, a request also calls `action`, on the thread that makes it.
  class Hook {
   public:
    Hook(Interruption& interruption, std::function<void()> action);
    ~Hook();
    Hook(const Hook&) = delete;
    Hook& operator=(const Hook&) = delete;

   private:
    Interruption& interruption_;
  };

 private:
  void TakeLocked();

  std::mutex mutex_;  // guards what follows
  zem::Condition changed_;
  bool requested_ = false;
  std::function<void()> action_;
  zem::UniqueFd wake_;
};

}  // namespace ZemDa
