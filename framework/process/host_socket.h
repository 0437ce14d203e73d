#pragma once

#include <cstddef>

#include "platform/core/clock.h"

/// Waits on the stream sockets of this host's daemons.  All end at once when `stop_fd` becomes readable.
namespace zem::host_socket {

enum class Result { kDone, kStopped, kTimeout, kEnded, kFailed };

/// kEnded does not occur: the end of the stream is something to read.
Result WaitToRead(int fd, int stop_fd, Duration limit);

/// All of it, or not at all.  `limit` is for the whole.
Result ReadWhole(int fd, int stop_fd, void* buffer, size_t length, Duration limit);

/// All of it; what the socket takes without waiting goes out even after the stop.
Result WriteWhole(int fd, int stop_fd, const void* buffer, size_t length, Duration limit);

}  // namespace zem::host_socket
