#pragma once

#include <poll.h>

#include "platform/core/stop_signal.h"
#include "platform/core/unique_fd.h"

namespace IdsEvtEng {

/// What ends the engine's threads, wherever they wait.
///
/// Threads: all operations from any thread.
class Interruption {
 public:
  /// Throws std::system_error when the system has no descriptor left.
  Interruption();

  void Stop();
  bool stopped() const { return signal_.stopped(); }
  /// Sleeps; true when the engine stops.
  bool SleepFor(zem::Duration duration) { return signal_.WaitFor(duration); }

  enum class Wait { kReady, kTimeOut, kFailed, kStopped };
  /// Waits for `events` of `fd`.  An error or an end of `fd` counts as ready.
  Wait WaitFor(int fd, short events, zem::Duration duration) const;

 private:
  zem::StopSignal signal_;
  zem::UniqueFd fd_;  // readable for ever once stopped
};

}  // namespace IdsEvtEng
