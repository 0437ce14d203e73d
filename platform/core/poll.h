#pragma once

#include <poll.h>

#include "platform/core/clock.h"

namespace zem {

/// poll() for a thread that the clock knows: it does not count as working while it waits for another process
/// or for a peer in its own.  A virtual clock stands still while one of the descriptors is ready and the
/// thread has not noticed yet.  The time-out is real time, on a virtual clock too.
int PollIdle(pollfd* descriptors, nfds_t count, int timeout_ms);

/// PollUntil() for a thread that waits for a process which works for it.  A virtual clock stands still for
/// some seconds of real time, as if that work were ours; a process that hangs longer no longer holds it.
int PollAnswer(pollfd* descriptors, nfds_t count, TimePoint deadline);

/// Before a pause behind which somebody looks whether another process is ready: gives that process some real
/// time on a virtual clock, which would else jump over its start.  Nothing on the real clock.
void LetOthersWork();

/// poll() until a moment of the process's clock, which on a virtual one is when everybody waits.  Gives what
/// poll() gives; the moment itself is 0.
int PollUntil(pollfd* descriptors, nfds_t count, TimePoint deadline);

}  // namespace zem
