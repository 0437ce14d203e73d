#include "app/zema/proxy/lum_handler.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <cstring>
#include <utility>

#include "framework/log/log.h"
#include "framework/process/shutdown_pipe.h"
#include "framework/process/util.h"
#include "platform/core/poll.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {
namespace {

using Tarvik::Util::ClosePipeQub;
using Tarvik::Util::GetErrMsg;
using Tarvik::Util::IsAnswerReady;
using Tarvik::Util::ReadCmdOutput;
using Tarvik::Util::WriteData;
using wft::WorkflowUtil;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr int kKillTries = 3;
// Before the second look for what a try waits for; doubled each time.
constexpr Duration kLook = std::chrono::milliseconds(50);
constexpr Duration kLongestRespawnPause = std::chrono::minutes(1);
constexpr int kReadyTries = 120;
constexpr uint32_t kWireVersion = 1;
// Far above any list of ports or switches of one host.
constexpr uint32_t kMaxReply = 64 * 1024 * 1024;
constexpr size_t kMaxChildOutput = 1024;

constexpr const char* kNoProcess = "no process found";
constexpr const char* kOk = "ok";
constexpr const char* kPing = "ping";
constexpr const char* kUninitialized = "Uninitialized";
constexpr const char* kReady = "ready";

// On the wire in the host's byte order: both ends are on one machine.
struct RequestHeader {
  uint32_t version;
  uint32_t length;
  uint32_t operation;
};
struct ReplyHeader {
  uint32_t status;
  uint32_t length;
};

// The output of a shell command; a command that cannot be run printed nothing.
std::string Shell(const std::string& command) {
  std::string output;
  std::string error;
  if (ReadCmdOutput(command, &output, &error) < 0) ZLOG_DEBUG("[%s] %s", __func__, error.c_str());
  return output;
}

}  // namespace

LumHandler::LumHandler(LumSettings settings)
    : settings_(std::move(settings)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

LumHandler::~LumHandler() {
  EndWatching();
  if (watcher_.joinable()) watcher_.Join();
  CloseSocket();
  ClosePipe();
}

bool LumHandler::Pause(Duration duration) const {
  LetOthersWork();
  return !Tarvik::WaitForShutdown(duration) && !settings_.shutting_down() && !watching_ends_.stopped();
}

bool LumHandler::LookFor(Duration duration, const std::function<bool()>& there) const {
  Duration waited{0};
  for (Duration next = kLook;; next *= 2) {
    if (there()) return true;
    if (waited >= duration || !Pause(std::min(next, duration - waited))) return false;
    waited += next;
  }
}

// --- Watching.

void LumHandler::StartWatching() {
  watcher_ = NativeThread({.name = "zema:lumWatch"}, [this] { Watch(); });
}

void LumHandler::EndWatching() {
  watching_ends_.Stop();
  WakeWatcher();
}

void LumHandler::WakeWatcher() {
  const uint64_t one = 1;
  // A full counter wakes as well.
  if (::write(wake_.get(), &one, sizeof(one)) < 0) ZLOG_DEBUG("[%s] %s", __func__, GetErrMsg(errno).c_str());
}

bool LumHandler::IsWatched() {
  const std::lock_guard lock(watched_mutex_);
  if (!watched_ && socket_) watched_.Reset(::fcntl(socket_.get(), F_DUPFD_CLOEXEC, 0));
  return static_cast<bool>(watched_);
}

void LumHandler::WaitForEnd() {
  UniqueFd watched;
  {
    const std::lock_guard lock(watched_mutex_);
    if (!watched_) return;
    watched.Reset(::fcntl(watched_.get(), F_DUPFD_CLOEXEC, 0));
    if (!watched) {
      // At the descriptor limit: the loop pauses and tries again.
      watched_.Reset();
      return;
    }
  }
  pollfd ends[2] = {{watched.get(), POLLRDHUP, 0}, {wake_.get(), POLLIN, 0}};
  PollIdle(ends, 2, -1);
  uint64_t count = 0;
  if (ends[1].revents != 0 && ::read(wake_.get(), &count, sizeof(count)) < 0) {
    ZLOG_DEBUG("[%s] %s", __func__, GetErrMsg(errno).c_str());
  }
}

void LumHandler::Watch() {
  Duration pause = settings_.respawn_pause;
  while (!watching_ends_.stopped() && !settings_.shutting_down()) {
    WaitForEnd();
    if (watching_ends_.stopped() || settings_.shutting_down()) return;
    bool connected = true;
    {
      const Synchronizer lock(*this, __FILE__, __LINE__);
      pollfd end{socket_.get(), POLLRDHUP, 0};
      if (socket_ && ::poll(&end, 1, 0) > 0) {
        ZLOG_ERROR("42061", "[%s] zemaLum.py has ended. Restarting python process..", __func__);
        Lose();
      }
      if (!socket_) connected = SpawnPyLumInternal() == kSucceeded;
      // Without a descriptor of its own it looks from time to time.
      connected = connected && IsWatched();
    }
    if (connected) {
      pause = settings_.respawn_pause;
      continue;
    }
    if (watching_ends_.WaitFor(pause)) return;
    pause = std::min(2 * pause, kLongestRespawnPause);
  }
}

int LumHandler::SetUp(std::string user, std::string third) {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  user_ = std::move(user);
  third_ = std::move(third);
  return SpawnPyLumInternal();
}

int LumHandler::InvokeCommand(const std::string& command, const std::string& expected, std::string* out) {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  return InvokeCommandInternal(command, expected, out);
}

int LumHandler::InvokeRPC(LumOperation operation, std::string_view data, std::string* out) {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  return InvokeRPCInternal(operation, data, out);
}

int LumHandler::InvokeCommandInternal(const std::string& command, const std::string& expected,
                                      std::string* out) {
  const auto span = WorkflowUtil::StartChildSpan("Lumhandler.InvokeCommandInternal", wft::kTraceDebug);
  WorkflowUtil::SetCurSpanTag("command", command);
  if (!socket_) {
    ZLOG_ERROR("42065", "[%s] LumHandler not initialized", __func__);
    *out = kNotInitialized;
    SpawnPyLumInternal();
    return kFailed;
  }
  return Ask(command, expected, out);
}

int LumHandler::Ask(const std::string& command, const std::string& expected, std::string* out) {
  ZLOG_TRACE("[%s] size of header: [%lu] data length = [%d] ", __func__,
             static_cast<unsigned long>(sizeof(RequestHeader)), static_cast<int>(command.size()));
  const Sent sent = Send(LumOperation::kTextCommand, command);
  WorkflowUtil::SetCurSpanTag("command.header.return.code", sent == Sent::kNoHeader ? "-1" : "0");
  WorkflowUtil::SetCurSpanTag("command.return.code", sent == Sent::kWhole ? "0" : "-1");
  if (sent == Sent::kNoHeader) {
    ZLOG_ERROR("42058", "[%s] Failed send header: command [%s]", __func__, command.c_str());
  } else if (sent == Sent::kNoData) {
    ZLOG_ERROR("42057", "[%s] Failed send command [%s]. Restarting python process..", __func__,
               command.c_str());
  }
  if (sent != Sent::kWhole) {
    *out = kWriteFailed;
    Lose();
    return kFailed;
  }
  uint32_t status = 0;
  if (!GetLine(&status, out)) {
    ZLOG_ERROR("42061", "[%s] Reading reply from socket failed. Restarting python process..", __func__);
    *out = kReadFailed;
    Lose();
    return kFailed;
  }
  if (!expected.empty() && *out != expected) {
    ZLOG_ERROR("42056", "Command : %s | Expected reply : %s | Reply : %s", command.c_str(), expected.c_str(),
               out->c_str());
    return kFailed;
  }
  ZLOG_TRACE("Command : %s | Expected reply : %s | Reply : %s", command.c_str(), expected.c_str(),
             out->c_str());
  return kSucceeded;
}

int LumHandler::InvokeRPCInternal(LumOperation operation, std::string_view data, std::string* out) {
  const auto span = WorkflowUtil::StartChildSpan("LumHandler.InvokeRPCInternal", wft::kTraceDebug);
  WorkflowUtil::SetCurSpanTag("function", std::to_string(static_cast<uint32_t>(operation)));
  if (!socket_) {
    ZLOG_ERROR("42065", "[%s] LumHandler not initialized", __func__);
    *out = kNotInitialized;
    SpawnPyLumInternal();
    return kRpcSocketFailure;
  }
  const Sent sent = Send(operation, data);
  if (sent != Sent::kWhole) {
    if (sent == Sent::kNoHeader) {
      ZLOG_ERROR("42058", "[%s] Failed send header.", __func__);
    } else {
      ZLOG_ERROR("42057", "[%s] Failed send command. Restarting python process..", __func__);
    }
    *out = "Internal Socket error in sending data.";
    Lose();
    SpawnPyLumInternal();
    return kRpcSocketFailure;
  }
  uint32_t status = 0;
  if (!GetLine(&status, out)) {
    ZLOG_ERROR("42056", "[%s] Failed read Result. Restarting python process..", __func__);
    *out = "Internal Socket error in reading data.";
    Lose();
    SpawnPyLumInternal();
    return kRpcSocketFailure;
  }
  return static_cast<int>(status);
}

LumHandler::Sent LumHandler::Send(LumOperation operation, std::string_view data) {
  const RequestHeader header{kWireVersion, static_cast<uint32_t>(data.size()),
                             static_cast<uint32_t>(operation)};
  if (WriteData(socket_.get(), &header, sizeof(header)) != static_cast<ssize_t>(sizeof(header))) {
    return Sent::kNoHeader;
  }
  if (WriteData(socket_.get(), data.data(), data.size()) != static_cast<ssize_t>(data.size()))
    return Sent::kNoData;
  return Sent::kWhole;
}

bool LumHandler::GetLine(uint32_t* status, std::string* out) {
  if (!socket_) {
    ZLOG_ERROR("42065", "[%s] LumHandler not initialized", __func__);
    return false;
  }
  out->clear();
  ReplyHeader header{};
  if (!ReadWhole(&header, sizeof(header))) return false;
  *status = header.status;
  if (static_cast<int32_t>(header.length) < 1) return true;
  if (header.length > kMaxReply) {
    ZLOG_ERROR("42061", "[%s] a reply of %u bytes is longer than %u", __func__, header.length, kMaxReply);
    return false;
  }
  out->resize(header.length);
  if (!ReadWhole(out->data(), out->size())) return false;
  // Taken as text: what follows a zero is not part of it.
  out->resize(std::strlen(out->c_str()));
  return true;
}

bool LumHandler::ReadWhole(void* buffer, size_t length) {
  size_t done = 0;
  while (done < length) {
    bool shutdown = false;
    const int ready = IsAnswerReady(socket_.get(), &shutdown, 1);
    if (ready < 0 || shutdown || settings_.shutting_down()) return false;
    if (ready == 0) continue;
    const ssize_t got = ::read(socket_.get(), static_cast<char*>(buffer) + done, length - done);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

std::string LumHandler::pid() const {
  const std::lock_guard lock(pid_mutex_);
  return pid_;
}

void LumHandler::SetPid(std::string pid) {
  const std::lock_guard lock(pid_mutex_);
  pid_ = std::move(pid);
}

void LumHandler::CloseSocket() {
  {
    const std::lock_guard lock(watched_mutex_);
    watched_.Reset();
  }
  socket_.Reset();
  WakeWatcher();
}

void LumHandler::Lose() {
  CloseSocket();
  // The process may have gone and its id be another's by the time of the end, which then kills by name.
  SetPid({});
  SetReady(false);
}

void LumHandler::SetReady(bool ready) {
  if (ready_ == ready) return;
  ready_ = ready;
  settings_.set_ready(ready);
}

void LumHandler::ClosePipe() {
  if (pipe_.pid <= 0) return;
  // With its group: the shell, and a script that hung before it took its name and was not found by it.
  if (::kill(-pipe_.pid, SIGKILL) != 0) ::kill(pipe_.pid, SIGKILL);
  std::string error;
  if (ClosePipeQub(&pipe_, &error) < 0) ZLOG_DEBUG("[%s] %s", __func__, error.c_str());
  pipe_ = {-1, -1};
}

std::string LumHandler::KillByName() {
  std::string joined;
  for (const char* list : {"ps -c", "ps -C"}) {
    const std::string command =
        "pid=`" + std::string(list) + " | grep " + settings_.process_name +
        " | grep -v grep | cut -d ' ' -f 1`; if [ -z \"$pid\" ]; then echo \"" + kNoProcess +
        "\"; else kill -9 $pid; echo \"$(date) process [\" $pid \"] killed\"| tee -a " + settings_.kill_log +
        "; fi";
    joined += Shell(command);
  }
  return joined;
}

bool LumHandler::KillPrior() {
  for (int i = 0; i < kKillTries; ++i) {
    if (i > 0 && !Pause(settings_.kill_pause)) return false;
    const std::string reply = KillByName();
    if (reply.find(kNoProcess) == std::string::npos) continue;
    ZLOG_INFO("[%s] terminated prior zemaLum.py process: [%s]", __func__, reply.c_str());
    return true;
  }
  ZLOG_ERROR("42062", "[%s] Failed to terminate prior zemaLum.py process.", __func__);
  return false;
}

bool LumHandler::Spawn() {
  const std::string command = "python " + settings_.script + " 1 2> " + settings_.error_file;
  ZLOG_INFO("[%s] Spawning %s", __func__, command.c_str());
  if (const int result = KnluserCompat_POpen(command.c_str(), "r", &pipe_); result != 0) {
    pipe_ = {-1, -1};
    ZLOG_ERROR("42062", "[%s] Spawn %s failed: [%s]", __func__, command.c_str(), GetErrMsg(result).c_str());
    return false;
  }
  return true;
}

bool LumHandler::FindPid() {
  const std::string command = "ps -C | grep " + settings_.process_name + " | cut -d ' ' -f 1";
  for (int left = options_.pid_tries; left > 0; --left) {
    std::string output;
    if (LookFor(settings_.pid_pause, [&] {
          output = Shell(command);
          boost::trim(output);
          return !output.empty();
        })) {
      ZLOG_INFO("[%s] zemaLum.py process id: [%s] lumSockFd: [%d]", __func__, output.c_str(), socket_.get());
      SetPid(std::move(output));
      return true;
    }
    ZLOG_INFO("[%s] zemaLum.py pid is empty. lumSockFd: [%d] Retries left: [%d]", __func__, socket_.get(),
              left - 1);
    if (!Pause(Duration::zero())) return false;
  }
  ZLOG_ERROR("42062", "Empty pid in process list for zemaLum.py. lumSockFd: [%d] Handle pid: [%d]",
             socket_.get(), static_cast<int>(pipe_.pid));
  return false;
}

bool LumHandler::Connect() {
  // The connection's own tries are far apart.
  LookFor(settings_.pid_pause, [this] { return ::access(settings_.socket.c_str(), F_OK) == 0; });
  socket_.Reset(Tarvik::ConnectToUnixSocket(settings_.socket, true));
  if (socket_) {
    const std::lock_guard lock(watched_mutex_);
    watched_.Reset(::fcntl(socket_.get(), F_DUPFD_CLOEXEC, 0));
    return true;
  }
  const std::string reason = GetErrMsg(errno);
  ZLOG_ERROR("42059", "[%s] failed to connect unix socket, error: [%s]", __func__, reason.c_str());
  // What the script printed often says why.
  const int flags = ::fcntl(pipe_.fd, F_GETFL);
  if (flags < 0 || ::fcntl(pipe_.fd, F_SETFL, flags | O_NONBLOCK) < 0) {
    ZLOG_ERROR("42060", "[%s] failed to set non-block flag, error: [%s]", __func__, GetErrMsg(errno).c_str());
    return false;
  }
  char printed[kMaxChildOutput];
  const ssize_t size = ::read(pipe_.fd, printed, sizeof(printed));
  const std::string text = size > 0 ? std::string(printed, static_cast<size_t>(size)) : reason;
  ZLOG_ERROR("42055", "[%s] Create %s socket failed, error: [%s]", __func__, settings_.socket.c_str(),
             text.c_str());
  return false;
}

int LumHandler::SpawnPyLumInternal() {
  const auto span = WorkflowUtil::StartChildSpan("LumHandler.SpawnPyLumInternal", wft::kTraceDebug);
  Lose();
  SetPid({});
  options_ = settings_.options();
  if (!KillPrior()) return kFailed;
  // Waits for its end; no other is left.
  ClosePipe();
  ::unlink(settings_.socket.c_str());
  if (!Pause(Duration::zero())) {
    ZLOG_ERROR("42062", "[%s] zema is shutting down, cancelling attempt to respawn zemaLum.", __func__);
    return kFailed;
  }
  if (!Spawn()) return kFailed;
  if (!FindPid()) {
    KillByName();
    ClosePipe();
    return kFailed;
  }
  // The end may have come before there was a process to kill.
  if (watching_ends_.stopped()) {
    KillByName();
    ClosePipe();
    return kFailed;
  }
  if (!Connect()) return kFailed;
  if (Login() != kSucceeded || WaitReady() != kSucceeded) {
    CloseSocket();
    return kFailed;
  }
  return kSucceeded;
}

int LumHandler::Login() {
  std::string reply;
  const std::string& level = options_.log_level;
  const bool own_level = level.empty() || level == "info" || level == "unset";
  if (!own_level && Ask("loglevel=" + level, kOk, &reply) != kSucceeded) {
    ZLOG_INFO("[%s] failed to set zemaLum.py log level to [%s]: [%s]", __func__, level.c_str(),
              reply.c_str());
  }
  constexpr const char* kNoVxlan = "no-vxlan-stack";
  if (socket_ && options_.no_vxlan_stack &&
      Ask(std::string("option=") + kNoVxlan, kOk, &reply) != kSucceeded) {
    ZLOG_INFO("[%s] failed to set zemaLum.py option [%s]: [%s]", __func__, kNoVxlan, reply.c_str());
  }
  if (!socket_) return kFailed;
  // A script that is logged in already answers something else, and that is fine.
  if (Ask(kPing, kUninitialized, &reply) != kSucceeded) return socket_ ? kSucceeded : kFailed;
  ZLOG_INFO("[%s] Setting login in %s...", __func__, settings_.script.c_str());
  const std::string login = "login=" + settings_.host_version + "|" + user_ + "|" + third_;
  if (Ask(login, kOk, &reply) == kSucceeded) return kSucceeded;
  ZLOG_ERROR("42064", "[%s] Unexpected reply for username command: %s", __func__, reply.c_str());
  return kFailed;
}

int LumHandler::WaitReady() {
  std::string reply;
  const auto ready = [&] { return !socket_ || Ask(kPing, kReady, &reply) == kSucceeded; };
  // Most scripts are ready at once; each look at one that is not leaves a line.
  bool there = LookFor(settings_.ready_pause, ready);
  for (int i = 1; i < kReadyTries && !there; ++i) {
    ZLOG_INFO("[%s] waiting for %s to be ready: status:[%s], retrying...", __func__, settings_.script.c_str(),
              reply.c_str());
    if (!Pause(settings_.ready_pause)) return kFailed;
    there = ready();
  }
  if (there && socket_) {
    ZLOG_INFO("[%s] %s is ready ...", __func__, settings_.script.c_str());
    SetReady(true);
    return kSucceeded;
  }
  ZLOG_ERROR("42063", "[%s] Timeout in waiting for %s to be ready: current status:[%s]", __func__,
             settings_.script.c_str(), reply.c_str());
  return kFailed;
}

void LumHandler::TerminateZemaLumPy() {
  EndWatching();
  if (const std::string known = pid(); !known.empty()) {
    const std::string output = Shell("kill -9 " + known);
    ZLOG_INFO("[%s] terminating zemaLum.py process [%s]: [%s]", __func__, known.c_str(), output.c_str());
    return;
  }
  const std::string output = KillByName();
  ZLOG_INFO("[%s] no zemaLum.py pid, terminating zemaLum.py process by grepping name: [%s]", __func__,
            output.c_str());
}

}  // namespace zem::zema
