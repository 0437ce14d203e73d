#include "framework/process/descriptor_io.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "framework/log/log.h"
#include "framework/process/shutdown_pipe.h"
#include "platform/core/clock.h"
#include "platform/core/poll.h"
#include "platform/core/unique_fd.h"
#include "platform/core/unix_socket.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

constexpr int kConnectRetries = 60;
constexpr auto kConnectPause = std::chrono::seconds(1);
constexpr int kInterruptWaitSeconds = 10;

// Returns false when no further try is wanted: at the shutdown, or when `stop_fd` is readable.
bool WaitForNextTry(int stop_fd) {
  LetOthersWork();
  pollfd waits[2] = {{stop_fd, POLLIN, 0}, {fdShutdown[0], POLLIN, 0}};
  PollUntil(waits, 2, Clock::Process().Now() + kConnectPause);
  return waits[0].revents == 0 && waits[1].revents == 0;
}

// After an interrupt: true when the caller shall go on.
bool GoesOnAfterInterrupt() {
  bool shutdown = false;
  return Util::IsReadyToBeRead(-1, &shutdown, kInterruptWaitSeconds) >= 0 && !shutdown;
}

int Readiness(const pollfd (&waits)[2], int ready, bool* shutdown) {
  if (ready < 0) {
    const int error = errno;
    ZLOG_ERROR("OPS00403", "[%s] select failed: [%s]\n", "IsReadyToBeRead", std::strerror(error));
    errno = error;
    return -1;
  }
  if (waits[1].revents != 0) *shutdown = true;
  return waits[0].revents != 0 ? 1 : 0;
}

}  // namespace

int ConnectToUnixSocket(const std::string& path, bool retry, int stop_fd) {
  if (path.size() > kMaxUnixPath) {
    ZLOG_ERROR("ERR_SOCK_PATH_TOO_LONG", "[%s] path [%s] is longer than %lud\n", __func__, path.c_str(),
               static_cast<unsigned long>(kMaxUnixPath));
    return -1;
  }
  UniqueFd fd = OpenUnixStream();
  if (!fd) {
    ZLOG_ERROR("OPS00201", "[%s] Creating socket failed: [%s]\n", __func__, std::strerror(errno));
    return -1;
  }
  int retries = 0;
  int result = ConnectUnix(fd.get(), path);
  while (result != 0 && retry && retries < kConnectRetries) {
    ++retries;
    ZLOG_DEBUG("[%s] Retrying connecting: rc=[%d] [%s]\n", __func__, -1, std::strerror(result));
    if (!WaitForNextTry(stop_fd)) break;
    result = ConnectUnix(fd.get(), path);
  }
  if (result != 0) {
    ZLOG_ERROR("OPS00202", "[%s] Connecting failed after [%d] retry: [%s]\n", __func__, retries,
               std::strerror(result));
    return -1;
  }
  ZLOG_DEBUG("[%s] Connected to unix socket [%s]\n", __func__, path.c_str());
  return fd.Release();
}

int ReadData(int fd, void* buffer, size_t length, int* got) {
  size_t total = 0;
  *got = 0;
  while (total < length) {
    const ssize_t part = ::read(fd, static_cast<char*>(buffer) + total, length - total);
    if (part > 0) {
      total += static_cast<size_t>(part);
      continue;
    }
    const int error = errno;
    ZLOG_DEBUG("[%s] fd [%d] totalByteRead = %d err =  [ %s : %d]\n", __func__, fd, static_cast<int>(total),
               std::strerror(error), error);
    if (part == 0) break;
    if (error != EINTR) {
      *got = static_cast<int>(total);
      return -1;
    }
    if (!GoesOnAfterInterrupt()) break;
  }
  *got = static_cast<int>(total);
  ZLOG_TRACE("[%s] fd [%d] byteRead [%d]\n", __func__, fd, *got);
  return 0;
}

namespace Util {

int IsReadyToBeRead(int fd, bool* shutdown, int timeout_seconds) {
  if (fd < 0) {
    if (WaitForShutdown(std::chrono::seconds(timeout_seconds))) *shutdown = true;
    return 0;
  }
  pollfd waits[2] = {{fd, POLLIN, 0}, {fdShutdown[0], POLLIN, 0}};
  return Readiness(waits, PollIdle(waits, 2, timeout_seconds * 1000), shutdown);
}

int IsAnswerReady(int fd, bool* shutdown, int timeout_seconds) {
  pollfd waits[2] = {{fd, POLLIN, 0}, {fdShutdown[0], POLLIN, 0}};
  const TimePoint deadline = Clock::Process().Now() + std::chrono::seconds(timeout_seconds);
  return Readiness(waits, PollAnswer(waits, 2, deadline), shutdown);
}

ssize_t WriteData(int fd, const void* buffer, size_t length) {
  size_t written = 0;
  while (written < length) {
    const ssize_t part = ::write(fd, static_cast<const char*>(buffer) + written, length - written);
    if (part >= 0) {
      written += static_cast<size_t>(part);
      continue;
    }
    const int error = errno;
    ZLOG_ERROR("OPS00404", "[%s] writing to fd [%d] failed with error [ %s : %d]\n", __func__, fd,
               std::strerror(error), error);
    if (error != EINTR) {
      errno = error;  // the caller reports it; logging may have changed it
      return -1;
    }
    if (!GoesOnAfterInterrupt()) break;
  }
  ZLOG_TRACE("[%s] fd [%d] byteWrite [%d]\n", __func__, fd, static_cast<int>(written));
  return static_cast<ssize_t>(written);
}

}  // namespace Util
}  // namespace zem::Tarvik
