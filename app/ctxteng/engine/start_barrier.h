#pragma once

#include <mutex>

#include "platform/core/condition.h"

namespace Ctxt {

/// Opens once and stays open.
///
/// Threads: all operations from any thread.
class StartBarrier {
 public:
  /// Blocks until the engine has started, or for a minute: the agent's other applications do not wait for it
  /// any longer.
  void WaitForStart();
  void NotifyStarted();
  bool open() {
    const std::lock_guard lock(mutex_);
    return started_;
  }

 private:
  std::mutex mutex_;  // guards started_
  zem::Condition changed_;
  bool started_ = false;
};

}  // namespace Ctxt
