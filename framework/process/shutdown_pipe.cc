#include "framework/process/shutdown_pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "framework/log/log.h"
#include "platform/core/stop_signal.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

// The pipe serves waits on descriptors, the signal waits without any: those follow the process's clock.
StopSignal& Signal() {
  static StopSignal* const signal =
      new StopSignal;  // never destroyed: threads may wait until the process ends
  return *signal;
}

void CloseEnd(std::atomic<int>& end) {
  const int fd = end.exchange(-1);
  if (fd >= 0) ::close(fd);
}

}  // namespace

std::atomic<int> fdShutdown[2] = {-1, -1};

bool OpenShutdownPipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    ZLOG_ERROR("ERR_PIPE_FAIL", "[%s] failed to create pipe: %s", __func__, std::strerror(errno));
    return false;
  }
  CloseEnd(fdShutdown[0]);  // of a start before, in the same process
  CloseEnd(fdShutdown[1]);
  fdShutdown[0] = ends[0];
  fdShutdown[1] = ends[1];
  Signal().Reset();
  return true;
}

void CloseShutdownPipe() {
  Signal().Stop();
  CloseEnd(fdShutdown[1]);
}

bool ShutdownRequested() { return Signal().stopped(); }

bool WaitForShutdown(Duration duration) { return Signal().WaitFor(duration); }

}  // namespace zem::Tarvik
