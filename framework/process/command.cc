#include "framework/process/command.h"

#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

#include "framework/log/log.h"
#include "framework/process/child_process.h"
#include "framework/process/descriptor_io.h"
#include "framework/process/error_text.h"
#include "framework/process/shutdown_pipe.h"
#include "platform/core/poll.h"
#include "platform/core/unique_fd.h"
#include "platform/knluser/knluser.h"
#include "platform/timeline/step.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

constexpr size_t kReadPiece = 1023;
constexpr int kAskedToEndMs = 2000;
constexpr size_t kMaxCommandOutput = 16 * 1024 * 1024;

// How a command ended.
enum class CommandEnd { kWhole, kShutdown, kStopped, kTooLong, kTooMuch, kFailed };

constexpr const char* kEndTexts[] = {
    "", "stopped by the shutdown", "stopped", "took too long", "output is longer than 16 MiB", "read failed",
};

// Waits for one descriptor of a command within its bounds.
class CommandWait {
 public:
  explicit CommandWait(const Util::CommandBounds& bounds)
      : shutdown_fd_(bounds.through_shutdown ? -1 : fdShutdown[0].load()),
        stop_fd_(bounds.stop_fd),
        deadline_(Clock::Process().Now() + bounds.limit) {}

  // kWhole: it is ready.
  CommandEnd For(int fd) const {
    if (fd < 0) return CommandEnd::kFailed;
    for (;;) {
      pollfd waits[] = {{fd, POLLIN, 0}, {shutdown_fd_, POLLIN, 0}, {stop_fd_, POLLIN, 0}};
      const int ready = PollAnswer(waits, std::size(waits), deadline_);
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0) return CommandEnd::kFailed;
      if (waits[1].revents != 0) return CommandEnd::kShutdown;
      if (waits[2].revents != 0) return CommandEnd::kStopped;
      if (ready == 0) return CommandEnd::kTooLong;
      return CommandEnd::kWhole;
    }
  }

 private:
  const int shutdown_fd_;
  const int stop_fd_;
  const TimePoint deadline_;
};

CommandEnd ReadToEnd(int fd, const CommandWait& wait, std::string* output) {
  const size_t limit = output->size() + kMaxCommandOutput;
  char piece[kReadPiece];
  for (;;) {
    if (const CommandEnd end = wait.For(fd); end != CommandEnd::kWhole) return end;
    const ssize_t got = ::read(fd, piece, sizeof(piece));
    if (got == 0) return CommandEnd::kWhole;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return CommandEnd::kFailed;
    if (output->size() + static_cast<size_t>(got) > limit) return CommandEnd::kTooMuch;
    output->append(piece, static_cast<size_t>(got));
  }
}

UniqueFd OpenProcess(pid_t pid) { return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))); }

// A command that has closed its output may still run for long.
CommandEnd WaitToEnd(pid_t pid, const CommandWait& wait) {
  const UniqueFd process = OpenProcess(pid);
  // A system that gives none leaves the waiting to the close.
  return process ? wait.For(process.get()) : CommandEnd::kWhole;
}

// `ask`: sends SIGTERM first and gives the group some time.
void EndGroup(pid_t pid, bool ask) {
  if (ask && ::kill(-pid, SIGTERM) == 0) {
    const UniqueFd process = OpenProcess(pid);
    pollfd wait{process.get(), POLLIN, 0};
    PollIdle(&wait, 1, kAskedToEndMs);
  }
  ::kill(-pid, SIGKILL);
}

void TellEnd(int status, std::string_view error, timeline::Step* step) {
  if (!step->recorded()) return;
  const std::string text = "exit code " + std::to_string(status);
  step->Result(error.empty() ? text : error, status != 0);
}

int Execute(const std::vector<std::string>& argv, std::string input, const std::atomic<bool>* stop) {
  std::fflush(stdin);
  std::fflush(stdout);
  std::fflush(stderr);
  ChildProcess::Options options;
  options.argv = argv;
  options.environment = std::vector<std::string>{"PYTHONIOENCODING=utf-8"};
  options.input = std::move(input);
  options.stop = stop;
  // A daemon that dies leaves nobody who would end it.
  options.ends_with_thread = true;
  // Whoever stops the command waits for it: each of the three signals gets a second.
  options.step = std::chrono::seconds(1);
  ChildProcess child(std::move(options));
  const ChildResult result = child.Run();
  switch (result.end) {
    case ChildEnd::kNoPipe:
      ZLOG_ERROR("OPS60010", "%s: Pipe failed to open: %s", __func__, std::strerror(result.value));
      return -1;
    case ChildEnd::kNotStarted:
      ZLOG_ERROR("OPS60010", "KnluserCompat_ForkExec fails: errno=%d", result.value);
      return -1;
    case ChildEnd::kGone:
      ZLOG_INFO("%s: child process %d terminated already", __func__, static_cast<int>(result.pid));
      return -1;
    default:
      break;
  }
  if (result.input_error != 0) {
    ZLOG_ERROR("OPS60010", "Write to stdin of parent process failed: %s", std::strerror(result.input_error));
    return -1;
  }
  if (result.end != ChildEnd::kExited) return -1;
  if (result.value != 0) {
    ZLOG_INFO("%s: child process %d exited abnormally, ret=%d", __func__, static_cast<int>(result.pid),
              result.value);
    ZLOG_DEBUG("%s: child process %d printed last: %s%s", __func__, static_cast<int>(result.pid),
               result.output.c_str(), result.errors.c_str());
  }
  return result.value;
}

}  // namespace

int ExecuteCmd(const std::vector<std::string>& argv, std::string input, const std::atomic<bool>* stop) {
  timeline::Step step("runs a command", argv.empty() ? std::string_view() : argv.front());
  const int status = Execute(argv, std::move(input), stop);
  TellEnd(status, {}, &step);
  return status;
}

namespace Util {

int ClosePipeQub(KnluserCompat_Pipe* handle, std::string* error) {
  ::close(handle->fd);
  ZLOG_DEBUG("[%s] closed QUB pipe [%d]\n", __func__, handle->fd);
  handle->fd = -1;
  int status = 0;
  pid_t waited = -1;
  do {
    waited = ::waitpid(handle->pid, &status, 0);
  } while (waited < 0 && errno == EINTR);
  const int wait_error = errno;
  ZLOG_DEBUG("[%s] waitpid returned [%d]\n", __func__, static_cast<int>(waited));
  if (waited < 0) {
    *error = "waitpid failed: " + GetErrMsg(wait_error);
    return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  *error = "terminated by signal " + std::to_string(WTERMSIG(status));
  return -1;
}

int ExecuteCmd(const std::string& command, std::string_view input, std::string* error) {
  timeline::Step step("runs a command", command);
  std::fflush(stdin);
  KnluserCompat_Pipe handle{-1, -1};
  if (const int result = KnluserCompat_POpen(command.c_str(), "w", &handle); result != 0) {
    ZLOG_ERROR("OPS00401", "KnluserCompat_POpen failed with error [%d] for cmd [%s]", result,
               command.c_str());
    *error = "KnluserCompat_POpen failed";
    return -1;
  }
  const ssize_t written = WriteData(handle.fd, input.data(), input.size());
  if (written < 0) {
    const std::string message = GetErrMsg(errno);
    ZLOG_ERROR("OPS00402", "[%s] failed to write cmd [%s], error [%s]", __func__, command.c_str(),
               message.c_str());
    *error = "write failed: " + message;
    std::string ignored;
    ClosePipeQub(&handle, &ignored);
    TellEnd(-1, *error, &step);
    return -1;
  }
  const int status = ClosePipeQub(&handle, error);
  TellEnd(status, status < 0 ? *error : std::string(), &step);
  return status;
}

int ReadCmdOutput(const std::string& command, std::string* output, std::string* error) {
  return ReadCmdOutput(command, output, error, CommandBounds());
}

int ReadCmdOutput(const std::string& command, std::string* output, std::string* error,
                  const CommandBounds& bounds) {
  timeline::Step step("runs a command", command);
  std::fflush(stdout);
  KnluserCompat_Pipe handle{-1, -1};
  if (const int result = KnluserCompat_POpen(command.c_str(), "r", &handle); result != 0) {
    ZLOG_ERROR("ERR_QUB_POPEN_FAIL", "KnluserCompat_POpen failed with error [%d] for cmd [%s]", result,
               command.c_str());
    *error = "KnluserCompat_POpen failed";
    return -1;
  }
  const CommandWait wait(bounds);
  CommandEnd end = ReadToEnd(handle.fd, wait, output);
  if (end == CommandEnd::kWhole) end = WaitToEnd(handle.pid, wait);
  if (end != CommandEnd::kWhole) EndGroup(handle.pid, end == CommandEnd::kShutdown);
  const int status = ClosePipeQub(&handle, error);
  if (status < 0) {
    ZLOG_ERROR("ERR_QUB_PCLOSE_FAIL", "ClosePipeQub failed %s: %s", command.c_str(), error->c_str());
  }
  if (end != CommandEnd::kWhole) *error = kEndTexts[static_cast<size_t>(end)];
  const int result = end == CommandEnd::kWhole ? status : -1;
  TellEnd(result, result < 0 ? *error : std::string(), &step);
  return result;
}

}  // namespace Util
}  // namespace zem::Tarvik
