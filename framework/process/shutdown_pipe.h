#pragma once

#include <atomic>

#include "platform/core/clock.h"

namespace zem::Tarvik {

/// The process-wide pipe whose read end becomes readable when the daemon stops; -1 when closed.  Loops that
/// wait for descriptors poll its read end, fdShutdown[0], along with them.
extern std::atomic<int> fdShutdown[2];

/// False, with an error line, when the system has no pipe to give.  By the main thread, before others start.
[[nodiscard]] bool OpenShutdownPipe();

/// Wakes everybody who waits on the pipe, for good.  By the main thread.
void CloseShutdownPipe();

/// True from CloseShutdownPipe on.
bool ShutdownRequested();

/// Sleeps; ends early with true at the shutdown.  From any thread.
bool WaitForShutdown(Duration duration);

}  // namespace zem::Tarvik
