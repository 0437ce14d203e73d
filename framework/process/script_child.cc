#include "framework/process/script_child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "framework/log/log.h"
#include "framework/process/command.h"
#include "framework/process/descriptor_io.h"
#include "framework/process/error_text.h"
#include "platform/core/poll.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

constexpr size_t kMaxPrinted = 1024;

// Returns the output of a shell command; a command that cannot be run has printed nothing.
std::string Shell(const std::string& command) {
  std::string output;
  std::string error;
  if (Util::ReadCmdOutput(command, &output, &error) < 0) ZLOG_DEBUG("[%s] %s", __func__, error.c_str());
  return output;
}

}  // namespace

std::string KillByNameCommand(const std::string& name, const std::string& signal) {
  return "pid=`ps -C | grep " + name +
         " | cut -d ' ' -f 1`; if [ -z $pid ]; then echo \"no process found\"; else kill " + signal +
         " $pid; echo \"process [\" $pid \"] killed\"; fi";
}

std::string KillProcess(const std::string& pid) { return Shell("kill -9 " + pid); }

ScriptChild::ScriptChild(Options options)
    : options_(std::move(options)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

ScriptChild::~ScriptChild() {
  Disconnect();
  Kill();
}

int ScriptChild::Spawn() {
  const int result = KnluserCompat_POpen(options_.command.c_str(), "r", &pipe_);
  if (result != 0) pipe_ = {-1, -1};
  return result;
}

bool ScriptChild::Find() {
  std::string found = Shell("ps -C | grep " + options_.process_name + " | cut -d ' ' -f 1");
  boost::trim(found);
  if (found.empty()) return false;
  const std::lock_guard lock(pid_mutex_);
  pid_ = std::move(found);
  return true;
}

std::string ScriptChild::pid() const {
  const std::lock_guard lock(pid_mutex_);
  return pid_;
}

void ScriptChild::ForgetPid() {
  const std::lock_guard lock(pid_mutex_);
  pid_.clear();
}

bool ScriptChild::Connect() {
  socket_.Reset(ConnectToUnixSocket(options_.socket, true));
  if (!socket_) return false;
  const std::lock_guard lock(watched_mutex_);
  watched_.Reset(::fcntl(socket_.get(), F_DUPFD_CLOEXEC, 0));
  return true;
}

void ScriptChild::Disconnect() {
  {
    const std::lock_guard lock(watched_mutex_);
    watched_.Reset();
  }
  socket_.Reset();
  WakeWatcher();
}

bool ScriptChild::HasEnded() const {
  pollfd end{socket_.get(), POLLRDHUP, 0};
  return socket_ && ::poll(&end, 1, 0) > 0;
}

int ScriptChild::ReadPrinted(std::string* text) {
  text->clear();
  const int flags = ::fcntl(pipe_.fd, F_GETFL);
  if (flags < 0 || ::fcntl(pipe_.fd, F_SETFL, flags | O_NONBLOCK) < 0) return errno;
  char printed[kMaxPrinted];
  const ssize_t size = ::read(pipe_.fd, printed, sizeof(printed));
  if (size > 0) text->assign(printed, static_cast<size_t>(size));
  return 0;
}

std::string ScriptChild::KillByName() {
  std::string printed;
  for (const std::string& command : options_.kill_commands) printed += Shell(command);
  return printed;
}

void ScriptChild::Kill() {
  if (pipe_.pid <= 0) {
    if (pipe_.fd >= 0) ::close(pipe_.fd);
    pipe_ = {-1, -1};
    return;
  }
  // With its group: the shell, and a script that hung before it took its name and was not found by it.
  if (::kill(-pipe_.pid, SIGKILL) != 0) ::kill(pipe_.pid, SIGKILL);
  std::string error;
  if (Util::ClosePipeQub(&pipe_, &error) < 0) ZLOG_DEBUG("[%s] %s", __func__, error.c_str());
  pipe_ = {-1, -1};
}

void ScriptChild::Reap() {
  if (pipe_.pid <= 0) return;
  siginfo_t end{};
  if (::waitid(P_PID, static_cast<id_t>(pipe_.pid), &end, WEXITED | WNOHANG | WNOWAIT) == 0) {
    if (end.si_pid == 0) return;
    // What it has started may go on; until its exit is taken, the group's id is not another's.
    ::kill(-pipe_.pid, SIGKILL);
    ::waitpid(pipe_.pid, nullptr, 0);
  }
  pipe_.pid = -1;
}

void ScriptChild::WaitForEnd() {
  UniqueFd watched;
  {
    const std::lock_guard lock(watched_mutex_);
    if (!watched_) return;
    watched.Reset(::fcntl(watched_.get(), F_DUPFD_CLOEXEC, 0));
    if (!watched) {
      // At the descriptor limit: the watcher pauses and tries again.
      watched_.Reset();
      return;
    }
  }
  pollfd ends[2] = {{watched.get(), POLLRDHUP, 0}, {wake_.get(), POLLIN, 0}};
  PollIdle(ends, 2, -1);
  uint64_t count = 0;
  if (ends[1].revents != 0 && ::read(wake_.get(), &count, sizeof(count)) < 0) {
    ZLOG_DEBUG("[%s] %s", __func__, Util::GetErrMsg(errno).c_str());
  }
}

void ScriptChild::WakeWatcher() {
  const uint64_t one = 1;
  // A full counter wakes as well.
  if (::write(wake_.get(), &one, sizeof(one)) < 0)
    ZLOG_DEBUG("[%s] %s", __func__, Util::GetErrMsg(errno).c_str());
}

bool ScriptChild::IsWatched() {
  const std::lock_guard lock(watched_mutex_);
  if (!watched_ && socket_) watched_.Reset(::fcntl(socket_.get(), F_DUPFD_CLOEXEC, 0));
  return static_cast<bool>(watched_);
}

}  // namespace zem::Tarvik
