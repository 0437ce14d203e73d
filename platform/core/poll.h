#pragma once

#include <poll.h>

#include <cerrno>

#include "platform/core/clock.h"

namespace zem {

/// poll() for a thread that the clock knows: it does not count as working while it waits for another process.
/// The time-out is real time, on a virtual clock too.
inline int PollIdle(pollfd* descriptors, nfds_t count, int timeout_ms) {
  Clock& clock = Clock::Process();
  clock.EndWork();
  const int ready = ::poll(descriptors, count, timeout_ms);
  const int error = errno;
  clock.BeginWork();
  errno = error;
  return ready;
}

/// poll() until a moment of the process's clock, which on a virtual one is when everybody waits.  Gives what
/// poll() gives; the moment itself is 0.
int PollUntil(pollfd* descriptors, nfds_t count, TimePoint deadline);

}  // namespace zem
