#pragma once

#include <mutex>
#include <string>

#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"

namespace zem::Tarvik {

/// Logs every 30 seconds which step of the start takes so long.  Without it a start that hangs would log
/// nothing, because no timer of the event loop runs before the last step.
///
/// Threads: all operations by the thread that starts the agent.
class StartWatchdog {
 public:
  StartWatchdog();
  ~StartWatchdog();

  /// Notes that the step has begun.  The text lives as long as the process.
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
