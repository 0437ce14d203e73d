#include "framework/process/host_socket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "platform/core/poll.h"

namespace zem::host_socket {
namespace {

Result WaitFor(int fd, int stop_fd, short events, TimePoint deadline) {
  for (;;) {
    if (Clock::Process().Now() >= deadline) return Result::kTimeout;
    pollfd waits[2] = {{fd, events, 0}, {stop_fd, POLLIN, 0}};
    const int ready = PollUntil(waits, 2, deadline);
    if (ready < 0 && errno != EINTR) return Result::kFailed;
    if (ready <= 0) continue;
    if (waits[1].revents != 0) return Result::kStopped;
    if ((waits[0].revents & POLLNVAL) != 0) return Result::kFailed;
    return Result::kDone;
  }
}

}  // namespace

Result WaitToRead(int fd, int stop_fd, Duration limit) {
  return WaitFor(fd, stop_fd, POLLIN, Clock::Process().Now() + limit);
}

Result ReadWhole(int fd, int stop_fd, void* buffer, size_t length, Duration limit) {
  const TimePoint deadline = Clock::Process().Now() + limit;
  for (size_t got = 0; got < length;) {
    if (const Result result = WaitFor(fd, stop_fd, POLLIN, deadline); result != Result::kDone) return result;
    const ssize_t part = ::recv(fd, static_cast<char*>(buffer) + got, length - got, MSG_DONTWAIT);
    if (part == 0) return Result::kEnded;
    if (part > 0) {
      got += static_cast<size_t>(part);
    } else if (errno != EINTR && errno != EAGAIN) {
      return errno == ECONNRESET ? Result::kEnded : Result::kFailed;
    }
  }
  return Result::kDone;
}

Result WriteWhole(int fd, int stop_fd, const void* buffer, size_t length, Duration limit) {
  const TimePoint deadline = Clock::Process().Now() + limit;
  for (size_t sent = 0; sent < length;) {
    const ssize_t part =
        ::send(fd, static_cast<const char*>(buffer) + sent, length - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (part >= 0) {
      sent += static_cast<size_t>(part);
    } else if (errno == EAGAIN) {
      const Result result = WaitFor(fd, stop_fd, POLLOUT, deadline);
      if (result != Result::kDone) return result;
    } else if (errno != EINTR) {
      return errno == EPIPE || errno == ECONNRESET ? Result::kEnded : Result::kFailed;
    }
  }
  return Result::kDone;
}

}  // namespace zem::host_socket
