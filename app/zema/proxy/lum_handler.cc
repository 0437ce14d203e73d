#include "app/zema/proxy/lum_handler.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "framework/log/log.h"
#include "framework/process/descriptor_io.h"
#include "framework/process/error_text.h"
#include "framework/process/shutdown_pipe.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/poll.h"
#include "platform/metrics/process_metrics.h"
#include "platform/timeline/step.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {
namespace {

using Tarvik::Util::GetErrMsg;
using Tarvik::Util::IsAnswerReady;
using Tarvik::Util::WriteData;
using wft::WorkflowUtil;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr int kKillTries = 3;
// The time before the second check of an awaited condition; doubled for each further check.
constexpr Duration kLook = std::chrono::milliseconds(50);
constexpr Duration kLongestRespawnPause = std::chrono::minutes(1);
constexpr int kReadyTries = 120;
constexpr uint32_t kWireVersion = 1;
// Far larger than any list of ports or switches of one host.
constexpr uint32_t kMaxReply = 64 * 1024 * 1024;

constexpr const char* kNoProcess = "no process found";
constexpr const char* kOk = "ok";
constexpr const char* kPing = "ping";
constexpr const char* kUninitialized = "Uninitialized";
constexpr const char* kReady = "ready";

// Sent in the host's byte order: both ends are on the same machine.
struct RequestHeader {
  uint32_t version;
  uint32_t length;
  uint32_t operation;
};
struct ReplyHeader {
  uint32_t status;
  uint32_t length;
};

// Finds the script in either format of this host's ps output, and adds a line to the kill log.
std::vector<std::string> KillCommands(const LumSettings& settings) {
  std::vector<std::string> commands;
  for (const char* list : {"ps -c", "ps -C"}) {
    commands.push_back("pid=`" + std::string(list) + " | grep " + settings.process_name +
                       " | grep -v grep | cut -d ' ' -f 1`; if [ -z \"$pid\" ]; then echo \"" + kNoProcess +
                       "\"; else kill -9 $pid; echo \"$(date) process [\" $pid \"] killed\"| tee -a " +
                       settings.kill_log + "; fi");
  }
  return commands;
}

std::string Command(const LumSettings& settings) {
  return "python " + settings.script + " 1 2> " + settings.error_file;
}

Tarvik::ScriptChild::Options ChildOptions(const LumSettings& settings) {
  return {Command(settings), settings.process_name, settings.socket, KillCommands(settings)};
}

}  // namespace

LumHandler::LumHandler(LumSettings settings)
    : settings_(std::move(settings)), child_(ChildOptions(settings_)) {}

LumHandler::~LumHandler() {
  EndWatching();
  if (watcher_.joinable()) watcher_.Join();
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
  child_.WakeWatcher();
}

void LumHandler::Watch() {
  const LoopThread loop("zema:lumWatch", LoopKind::kWorker);
  Duration pause = settings_.respawn_pause;
  while (!watching_ends_.stopped() && !settings_.shutting_down()) {
    child_.WaitForEnd();
    if (watching_ends_.stopped() || settings_.shutting_down()) return;
    bool connected = true;
    {
      const LoopStep step("start of the host management script");
      const Synchronizer lock(*this, __FILE__, __LINE__);
      if (child_.HasEnded()) {
        ZLOG_ERROR("42061", "[%s] zemaLum.py has ended. Restarting python process..", __func__);
        Lose();
      }
      if (child_.socket() < 0) connected = SpawnPyLumInternal() == kSucceeded;
      // When the child's end cannot be watched through a descriptor, the loop checks from time to time.
      connected = connected && child_.IsWatched();
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

namespace {

// Only a wait that is worth a line is a step.
TimePoint WaitBegin() { return timeline::Recording() ? Clock::Process().Now() : TimePoint(); }

void WaitEnd(TimePoint asked) {
  constexpr auto kShort = std::chrono::milliseconds(1);
  if (!timeline::Recording() || Clock::Process().Now() - asked < kShort) return;
  timeline::Waited("waits for the management proxy", asked);
}

}  // namespace

int LumHandler::InvokeCommand(const std::string& command, const std::string& expected, std::string* out) {
  const TimePoint asked = WaitBegin();
  const Synchronizer lock(*this, __FILE__, __LINE__);
  WaitEnd(asked);
  return InvokeCommandInternal(command, expected, out);
}

int LumHandler::InvokeRPC(LumOperation operation, std::string_view data, std::string* out) {
  const TimePoint asked = WaitBegin();
  const Synchronizer lock(*this, __FILE__, __LINE__);
  WaitEnd(asked);
  return InvokeRPCInternal(operation, data, out);
}

int LumHandler::InvokeCommandInternal(const std::string& command, const std::string& expected,
                                      std::string* out) {
  auto span = WorkflowUtil::StartChildSpan("Lumhandler.InvokeCommandInternal", wft::kTraceDebug);
  WorkflowUtil::SetCurSpanTag("command", command);
  if (!connected()) {
    ZLOG_ERROR("42065", "[%s] LumHandler not initialized", __func__);
    *out = kNotInitialized;
    span.Result(*out, true);
    SpawnPyLumInternal();
    return kFailed;
  }
  // Without the arguments, which would make a metric of each call.
  const std::string_view name = std::string_view(command).substr(0, command.find('('));
  const metrics::CallTimer timer(metrics::MetricId::kScript, name);
  const int result = Ask(command, expected, out);
  if (result != kSucceeded) metrics::CounterOf(metrics::MetricId::kScriptErrors, name).Add();
  span.Result(*out, result != kSucceeded);
  return result;
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
  auto span = WorkflowUtil::StartChildSpan("LumHandler.InvokeRPCInternal", wft::kTraceDebug);
  const int result = CallRpc(operation, data, out);
  span.Result(result == kRpcSucceeded ? "succeeded" : *out, result != kRpcSucceeded);
  return result;
}

int LumHandler::CallRpc(LumOperation operation, std::string_view data, std::string* out) {
  WorkflowUtil::SetCurSpanTag("function", std::to_string(static_cast<uint32_t>(operation)));
  if (!connected()) {
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
  if (WriteData(child_.socket(), &header, sizeof(header)) != static_cast<ssize_t>(sizeof(header))) {
    return Sent::kNoHeader;
  }
  if (WriteData(child_.socket(), data.data(), data.size()) != static_cast<ssize_t>(data.size()))
    return Sent::kNoData;
  return Sent::kWhole;
}

bool LumHandler::GetLine(uint32_t* status, std::string* out) {
  if (!connected()) {
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
  // The reply is a text: bytes after a zero are not part of it.
  out->resize(std::strlen(out->c_str()));
  return true;
}

bool LumHandler::ReadWhole(void* buffer, size_t length) {
  size_t done = 0;
  while (done < length) {
    bool shutdown = false;
    const int ready = IsAnswerReady(child_.socket(), &shutdown, 1);
    if (ready < 0 || shutdown || settings_.shutting_down()) return false;
    if (ready == 0) continue;
    const ssize_t got = ::read(child_.socket(), static_cast<char*>(buffer) + done, length - done);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

void LumHandler::Lose() {
  child_.Disconnect();
  // The process may have ended and its id may belong to another process by the time it is to be killed;
  // without the id, the child is killed by name.
  child_.ForgetPid();
  SetReady(false);
}

void LumHandler::SetReady(bool ready) {
  if (ready_ == ready) return;
  ready_ = ready;
  settings_.set_ready(ready);
}

bool LumHandler::KillPrior() {
  for (int i = 0; i < kKillTries; ++i) {
    if (i > 0 && !Pause(settings_.kill_pause)) return false;
    const std::string reply = child_.KillByName();
    if (reply.find(kNoProcess) == std::string::npos) continue;
    ZLOG_INFO("[%s] terminated prior zemaLum.py process: [%s]", __func__, reply.c_str());
    return true;
  }
  ZLOG_ERROR("42062", "[%s] Failed to terminate prior zemaLum.py process.", __func__);
  return false;
}

bool LumHandler::Spawn() {
  const std::string command = Command(settings_);
  ZLOG_INFO("[%s] Spawning %s", __func__, command.c_str());
  if (const int result = child_.Spawn(); result != 0) {
    ZLOG_ERROR("42062", "[%s] Spawn %s failed: [%s]", __func__, command.c_str(), GetErrMsg(result).c_str());
    return false;
  }
  return true;
}

bool LumHandler::FindPid() {
  for (int left = options_.pid_tries; left > 0; --left) {
    if (LookFor(settings_.pid_pause, [this] { return child_.Find(); })) {
      ZLOG_INFO("[%s] zemaLum.py process id: [%s] lumSockFd: [%d]", __func__, child_.pid().c_str(),
                child_.socket());
      return true;
    }
    ZLOG_INFO("[%s] zemaLum.py pid is empty. lumSockFd: [%d] Retries left: [%d]", __func__, child_.socket(),
              left - 1);
    if (!Pause(Duration::zero())) return false;
  }
  ZLOG_ERROR("42062", "Empty pid in process list for zemaLum.py. lumSockFd: [%d] Handle pid: [%d]",
             child_.socket(), static_cast<int>(child_.child()));
  return false;
}

bool LumHandler::Connect() {
  // Waits for the socket file first, because the connection's own retries are far apart.
  LookFor(settings_.pid_pause, [this] { return ::access(settings_.socket.c_str(), F_OK) == 0; });
  if (child_.Connect()) return true;
  const std::string reason = GetErrMsg(errno);
  ZLOG_ERROR("42059", "[%s] failed to connect unix socket, error: [%s]", __func__, reason.c_str());
  // The script's output often contains the reason.
  std::string printed;
  if (const int failed = child_.ReadPrinted(&printed); failed != 0) {
    ZLOG_ERROR("42060", "[%s] failed to set non-block flag, error: [%s]", __func__,
               GetErrMsg(failed).c_str());
    return false;
  }
  ZLOG_ERROR("42055", "[%s] Create %s socket failed, error: [%s]", __func__, settings_.socket.c_str(),
             printed.empty() ? reason.c_str() : printed.c_str());
  return false;
}

int LumHandler::SpawnPyLumInternal() {
  const auto span = WorkflowUtil::StartChildSpan("LumHandler.SpawnPyLumInternal", wft::kTraceDebug);
  Lose();
  options_ = settings_.options();
  if (!KillPrior()) return kFailed;
  // Waits until the child has ended, so that only one script runs.
  child_.Kill();
  ::unlink(settings_.socket.c_str());
  if (!Pause(Duration::zero())) {
    ZLOG_ERROR("42062", "[%s] zema is shutting down, cancelling attempt to respawn zemaLum.", __func__);
    return kFailed;
  }
  if (!Spawn()) return kFailed;
  if (!FindPid()) {
    child_.KillByName();
    child_.Kill();
    return kFailed;
  }
  // The handler may have been terminated before there was a process to kill.
  if (watching_ends_.stopped()) {
    child_.KillByName();
    child_.Kill();
    return kFailed;
  }
  if (!Connect()) return kFailed;
  if (Login() != kSucceeded || WaitReady() != kSucceeded) {
    child_.Disconnect();
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
  if (connected() && options_.no_vxlan_stack &&
      Ask(std::string("option=") + kNoVxlan, kOk, &reply) != kSucceeded) {
    ZLOG_INFO("[%s] failed to set zemaLum.py option [%s]: [%s]", __func__, kNoVxlan, reply.c_str());
  }
  if (!connected()) return kFailed;
  // A script that is already logged in gives another answer, which is fine.
  if (Ask(kPing, kUninitialized, &reply) != kSucceeded) return connected() ? kSucceeded : kFailed;
  ZLOG_INFO("[%s] Setting login in %s...", __func__, settings_.script.c_str());
  const std::string login = "login=" + settings_.host_version + "|" + user_ + "|" + third_;
  if (Ask(login, kOk, &reply) == kSucceeded) return kSucceeded;
  ZLOG_ERROR("42064", "[%s] Unexpected reply for username command: %s", __func__, reply.c_str());
  return kFailed;
}

int LumHandler::WaitReady() {
  std::string reply;
  const auto ready = [&] { return !connected() || Ask(kPing, kReady, &reply) == kSucceeded; };
  // Most scripts are ready at once; each failed check of one that is not leaves a log line.
  bool there = LookFor(settings_.ready_pause, ready);
  for (int i = 1; i < kReadyTries && !there; ++i) {
    ZLOG_INFO("[%s] waiting for %s to be ready: status:[%s], retrying...", __func__, settings_.script.c_str(),
              reply.c_str());
    if (!Pause(settings_.ready_pause)) return kFailed;
    there = ready();
  }
  if (there && connected()) {
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
  if (const std::string known = child_.pid(); !known.empty()) {
    const std::string output = Tarvik::KillProcess(known);
    ZLOG_INFO("[%s] terminating zemaLum.py process [%s]: [%s]", __func__, known.c_str(), output.c_str());
    return;
  }
  const std::string output = child_.KillByName();
  ZLOG_INFO("[%s] no zemaLum.py pid, terminating zemaLum.py process by grepping name: [%s]", __func__,
            output.c_str());
}

}  // namespace zem::zema
