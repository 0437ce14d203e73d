#pragma once

#include <mutex>
#include <string>

#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"

namespace zem::Tarvik {

/// Tells, every 30 seconds, which step of the start is taking so long.  A start that hangs is silent
/// otherwise: no timer of the event loop runs before its last step.
///
/// Threads: one owner.
class StartWatchdog {
 public:
  StartWatchdog();
  ~StartWatchdog();

  /// `step` lives as long as the process.
  void Enter(const char* step);

 private:
  void Watch();

  std::mutex mutex_;  // guards step_ and entered_
  const char* step_ = "";
  TimePoint entered_;
  StopSignal stop_;
  NativeThread thread_;
};

}  // namespace zem::Tarvik
