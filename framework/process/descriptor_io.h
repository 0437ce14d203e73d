#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

/// Reads, writes and waits on descriptors.  All waits end at the daemon's shutdown.
///
/// Threads: any thread; the functions block, so a provider's thread must not call them.
namespace zem::Tarvik {

/// Connects to the Unix socket `path` (at most 107 bytes).  Returns a descriptor that the caller closes, or
/// -1. With `retry` it tries up to 60 more times, a second apart, until `stop_fd` (-1 for none) is readable.
[[nodiscard]] int ConnectToUnixSocket(const std::string& path, bool retry, int stop_fd = -1);

/// Reads until `length` bytes are there or the stream ends; `*got` is the total.  Returns 0, or -1 on
/// failure. An interrupt during the shutdown ends the reading short, with 0.
[[nodiscard]] int ReadData(int fd, void* buffer, size_t length, int* got);

namespace Util {

/// Waits for `fd` (-1 for none) and for the shutdown.  Returns 1 when `fd` is ready, 0 after a time-out or
/// the shutdown alone, -1 on failure.
[[nodiscard]] int IsReadyToBeRead(int fd, bool* shutdown, int timeout_seconds);

/// The same for the answer of a process that works for the caller: a virtual clock stands still meanwhile.
[[nodiscard]] int IsAnswerReady(int fd, bool* shutdown, int timeout_seconds);

/// Returns the number of bytes written, or -1.
ssize_t WriteData(int fd, const void* buffer, size_t length);

}  // namespace Util
}  // namespace zem::Tarvik
