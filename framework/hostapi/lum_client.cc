#include "framework/hostapi/lum_client.h"

#include <fcntl.h>

#include <algorithm>
#include <boost/algorithm/string/trim.hpp>
#include <utility>

#include "framework/hostapi/script_output.h"
#include "framework/log/log.h"
#include "framework/process/command.h"
#include "framework/process/error_text.h"
#include "platform/core/thread.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/provider/work_group.h"

// Two locks: one is held over a whole sequence, which may take minutes or never succeed; the other only over
// memory, so that whoever asks for the links' status or reports a failure never waits for a sequence.

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

constexpr int kSoftKills = 5;
constexpr auto kKillPause = std::chrono::milliseconds(500);
constexpr auto kStopPause = std::chrono::seconds(1);
constexpr auto kSpawnPause = std::chrono::seconds(1);
constexpr auto kErrorPause = std::chrono::seconds(1);
constexpr int kPidLooks = 10;
constexpr auto kPidPause = std::chrono::seconds(1);
constexpr auto kShellLimit = std::chrono::seconds(10);
// The orderly stop has seconds for all applications together.
constexpr auto kLastShellLimit = std::chrono::seconds(1);

constexpr const char* kSpawnError = "ERR_QUB_LUMHANDLER_SPAWN";
constexpr const char* kSpawn = "SpawnLumPy";
constexpr const char* kTerminate = "TerminateLumPy";
constexpr const char* kGetPid = "GetZemLumPid";
constexpr const char* kNoProcess = "no process found";

std::mutex the_client_mutex;
boost::intrusive_ptr<LumClient> the_client;

}  // namespace

LumClient::LumClient(AsioZemProvider& provider, boost::intrusive_ptr<WorkGroup> work_group, Settings settings)
    : provider_(provider),
      work_group_(std::move(work_group)),
      settings_(std::move(settings)),
      child_({"python " + settings_.script, settings_.process_name, "", {}}) {}

LumClient::LumClient(AsioZemProvider& provider, boost::intrusive_ptr<WorkGroup> work_group)
    : LumClient(provider, std::move(work_group), Settings()) {}

LumClient::~LumClient() = default;

boost::intrusive_ptr<LumClient> LumClient::Instance() {
  const std::lock_guard lock(the_client_mutex);
  return the_client;
}

void LumClient::Install(boost::intrusive_ptr<LumClient> client) {
  const std::lock_guard lock(the_client_mutex);
  the_client.swap(client);
}

// --- What links and commands call; none of it waits.

void LumClient::Register(const boost::intrusive_ptr<LumLink>& link) {
  const std::lock_guard lock(state_mutex_);
  ZLOG_INFO("LumClient register %s", link->path().c_str());
  // A link that fails is in use, and its user may have let go of the client.
  link->SetErrorCallback(
      [self = boost::intrusive_ptr<LumClient>(this)](LumLink* failed) { self->LinkErrorHandle(failed); });
  boost::intrusive_ptr<LumLink>& current = links_[link->path()];
  // A link that is replaced is its user's alone: its failure must not reset the others.
  if (current && current != link) current->SetErrorCallback(nullptr);
  current = link;
}

void LumClient::Unregister(const std::string& path) {
  boost::intrusive_ptr<LumLink> link;
  const std::lock_guard lock(state_mutex_);
  const auto found = links_.find(path);
  if (found == links_.end()) return;
  link = std::move(found->second);
  links_.erase(found);
  link->SetErrorCallback(nullptr);
}

void LumClient::GetLinkStatus(std::vector<LinkStatus>* list) const {
  const std::lock_guard lock(state_mutex_);
  for (const auto& [path, link] : links_) list->emplace_back(path, link->GetStatus());
}

LumClient::State LumClient::state() const {
  const std::lock_guard lock(state_mutex_);
  return state_;
}

void LumClient::LinkErrorHandle(LumLink* link) {
  ZLOG_INFO("LinkErrorHandle for %s", link->path().c_str());
  // Closed meanwhile: by another link's failure, a reset or the stop.
  if (!link->TakeFailure()) return;
  {
    const std::lock_guard lock(state_mutex_);
    if (stop_.stopped() || state_ == State::kHandlingError) return;
    state_ = State::kHandlingError;
  }
  CloseLumLink();
  const std::lock_guard lock(state_mutex_);
  if (stop_.stopped()) return;
  error_timer_ = provider_.timers().Schedule(
      kErrorPause, [self = boost::intrusive_ptr<LumClient>(this)] { self->HandleErrorTimer(); });
}

void LumClient::HandleErrorTimer() {
  ZLOG_INFO("Error Handle Timeout");
  {
    const std::lock_guard lock(state_mutex_);
    error_timer_.reset();
    // A start may go on for long, with failures; each must not take another thread of the group.
    if (std::exchange(reset_waits_, true)) return;
  }
  Enqueue([this] { LinkErrorHandleInt(); });
}

// --- The sequences, on threads of the work group.

void LumClient::Enqueue(std::function<void()> function) {
  const bool queued = work_group_->Enqueue(MakeWorkItem(
      [self = boost::intrusive_ptr<LumClient>(this), function = std::move(function)] { function(); }));
  if (!queued) ZLOG_DEBUG("the host API client has no thread, the work group has stopped");
}

void LumClient::Start() {
  Enqueue([this] {
    const std::lock_guard sequence(sequence_mutex_);
    while (Going() && !StartSequence()) {
      if (Going()) StopSequence();
    }
  });
}

void LumClient::LinkErrorHandleInt() {
  ZLOG_INFO("LinkErrorHandleInt call...");
  const std::lock_guard sequence(sequence_mutex_);
  {
    const std::lock_guard lock(state_mutex_);
    reset_waits_ = false;
  }
  // A start that was under way may have healed the failure already.
  if (!Going() || (state() == State::kRunning && AllUp())) return;
  Reset();
}

void LumClient::Reset() {
  ZLOG_INFO("LumClient Reset...");
  do {
    StopSequence();
    ZLOG_INFO("LumClient Stopped...");
  } while (Going() && !StartSequence());
}

void LumClient::Stop() {
  stop_.Stop();
  for (const auto& link : links()) link->Stop();
  std::shared_ptr<Timer> timer;
  {
    const std::lock_guard lock(state_mutex_);
    timer = std::move(error_timer_);
  }
  if (timer) timer->Cancel();
  const std::lock_guard sequence(sequence_mutex_);
  last_ = true;
  StopSequence();
  last_ = false;
  // A script that never took its name is not found by it.
  child_.Kill();
  output_.reset();
  // The links need not name the client any more, which they keep alive otherwise.
  for (const auto& link : links()) link->SetErrorCallback(nullptr);
}

bool LumClient::StartSequence() {
  ZLOG_INFO("LumClient Start...");
  SetState(State::kStarting);
  while (!SpawnLumPy()) {
    if (!Pause(kSpawnPause)) return false;
  }
  if (!OpenLumLink()) return false;
  GetZemLumPid();
  // A link that has failed meanwhile waits for its reset.
  Advance(State::kStarting, State::kRunning);
  return Going();
}

void LumClient::StopSequence() {
  ZLOG_INFO("LumClient Stop...");
  CloseLumLink();
  Pause(kStopPause);
  if (!TerminateLumPy()) ZLOG_DEBUG("the script's process is still there");
  SetState(State::kStopped);
}

bool LumClient::OpenLumLink() {
  ZLOG_INFO("OpenLumLink...");
  const Links all = links();
  return std::ranges::all_of(all, [this](const auto& link) { return Going() && link->OpenLumSocket(); });
}

void LumClient::CloseLumLink() {
  ZLOG_INFO("CloseLumLink...");
  for (const auto& link : links()) link->CloseLumSocket();
}

LumClient::Links LumClient::links() const {
  const std::lock_guard lock(state_mutex_);
  Links all;
  for (const auto& [path, link] : links_) all.push_back(link);
  return all;
}

bool LumClient::AllUp() const {
  const Links all = links();
  return std::ranges::all_of(all, [](const auto& link) { return link->GetStatus() == LumLink::kUp; });
}

void LumClient::SetState(State state) {
  const std::lock_guard lock(state_mutex_);
  ZLOG_DEBUG("LumClient state %d to %d", static_cast<int>(state_), static_cast<int>(state));
  state_ = state;
}

void LumClient::Advance(State from, State state) {
  const std::lock_guard lock(state_mutex_);
  if (state_ != from) return;
  ZLOG_DEBUG("LumClient state %d to %d", static_cast<int>(state_), static_cast<int>(state));
  state_ = state;
}

bool LumClient::Pause(Duration duration) {
  if (!last_) return !stop_.WaitFor(duration);
  SleepFor(duration);
  return true;
}

std::optional<std::string> LumClient::Shell(const std::string& command) const {
  std::string output;
  std::string error;
  Util::CommandBounds bounds;
  bounds.limit = last_ ? kLastShellLimit : kShellLimit;
  bounds.through_shutdown = last_;
  if (Util::ReadCmdOutput(command, &output, &error, bounds) < 0) {
    ZLOG_DEBUG("[%s] %s", __func__, error.c_str());
    return std::nullopt;
  }
  boost::trim(output);
  return output;
}

// --- The process.

bool LumClient::SpawnLumPy() {
  ZLOG_INFO("[%s] LumClient Spawn zem-lum", kSpawn);
  if (!TerminateLumPy()) return false;
  if (child_.output() >= 0) {
    ZLOG_INFO("Closing previous zem-lum pipe, fd %d", child_.output());
    output_.reset();
    child_.Kill();
  }
  const std::string command = "python " + settings_.script;
  ZLOG_INFO("[%s] Spawning %s....", kSpawn, command.c_str());
  if (const int result = child_.Spawn(); result != 0) {
    ZLOG_ERROR(kSpawnError, "[%s] Spawn %s failed: [%s]", kSpawn, command.c_str(),
               Util::GetErrMsg(result).c_str());
    return false;
  }
  UniqueFd pipe(::fcntl(child_.output(), F_DUPFD_CLOEXEC, 0));
  if (pipe) output_ = std::make_unique<ScriptOutput>(provider_, std::move(pipe));
  return true;
}

bool LumClient::TerminateLumPy() {
  for (int i = 0; i < kSoftKills && Going(); ++i) {
    // An ended child is listed until its exit is taken.
    child_.Reap();
    const std::optional<std::string> output = Shell(KillByNameCommand(settings_.process_name, "-TERM"));
    // Without a list of processes there is nothing to repeat, and the stop has little time.
    if (!output && last_) return false;
    if (output && output->find(kNoProcess) != std::string::npos) {
      ZLOG_INFO("[%s] terminated prior zemLum.py process: [%s]", kTerminate, output->c_str());
      child_.ForgetPid();
      return true;
    }
    ZLOG_INFO("[%s] retry terminated prior zemLum.py process: [%s]", kTerminate,
              output.value_or(std::string()).c_str());
    if (!Pause(kKillPause)) return false;
  }
  if (!Going()) return false;
  Shell(KillByNameCommand(settings_.process_name, "-9"));
  ZLOG_ERROR(kSpawnError, "[%s] Failed to terminate prior zemLum.py process.", kTerminate);
  return false;
}

bool LumClient::GetZemLumPid() {
  const std::string list = "ps -C | grep " + settings_.process_name;
  for (int i = 0; i < kPidLooks; ++i) {
    if (!Pause(kPidPause)) return false;
    ZLOG_INFO("[%s] zem-lum Pid output: %s", kGetPid, Shell(list).value_or(std::string()).c_str());
    const bool found = child_.Find();
    ZLOG_INFO("[%s] zem-lum Pid: %s", kGetPid, child_.pid().c_str());
    if (!found) continue;
    ZLOG_INFO("[%s] zem-lum.py process id: [%s]", kGetPid, child_.pid().c_str());
    return true;
  }
  ZLOG_ERROR(kSpawnError, "[%s] Get zem-lum Pid failed", kGetPid);
  return false;
}

}  // namespace zem::Tarvik
