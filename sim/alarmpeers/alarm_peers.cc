#include "sim/alarmpeers/alarm_peers.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "platform/core/clock_factor.h"
#include "sim/sandbox/daemon_process.h"
#include "sim/scenario/control_client.h"

namespace zem::sim {
namespace {

// The node's own program; the link leads to it wherever the sandbox has hidden the path.
constexpr const char* kProgram = "/proc/self/exe";
constexpr const char* kVerb = "alarm-peer";
constexpr auto kStartTime = std::chrono::seconds(10);

}  // namespace

AlarmPeers::AlarmPeers(std::string directory) : directory_(std::move(directory)) {}
AlarmPeers::~AlarmPeers() = default;

std::string AlarmPeers::Start(PeerSettings settings) {
  settings.socket = directory_ + "/alarm-" + settings.id;
  const std::lock_guard lock(mutex_);
  Entry& entry = peers_[settings.id];
  if (entry.process != nullptr && entry.process->pid() != 0) return settings.id + " runs";
  std::vector<std::string> words = settings.ToWords();
  words.insert(words.begin(), kVerb);
  entry.process = std::make_unique<DaemonProcess>(kProgram, settings.socket + ".out", std::move(words));
  if (const char* const factor = std::getenv(kClockFactorVariable)) {
    entry.process->SetEnvironment(kClockFactorVariable, factor);
  }
  entry.settings = std::move(settings);
  entry.stopped = false;
  entry.process->Start();
  return {};
}

bool AlarmPeers::Signal(const std::string& id, int signal) {
  const std::lock_guard lock(mutex_);
  const auto found = peers_.find(id);
  if (found == peers_.end() || !found->second.process->Kill(signal)) return false;
  if (signal == SIGSTOP || signal == SIGCONT) found->second.stopped = signal == SIGSTOP;
  // The agent may see the end of the connection before the process is gone, and a test starts it again then.
  if (signal == SIGKILL) (void)found->second.process->Wait(kStartTime);
  return true;
}

std::vector<AlarmPeers::Peer> AlarmPeers::All() const {
  std::vector<Peer> all;
  const std::lock_guard lock(mutex_);
  for (const auto& [id, entry] : peers_)
    all.push_back({entry.settings, entry.process->pid() != 0, entry.stopped});
  return all;
}

std::string AlarmPeers::Ask(const std::string& id, const std::string& command) const {
  std::string socket;
  {
    const std::lock_guard lock(mutex_);
    const auto found = peers_.find(id);
    if (found == peers_.end() || found->second.process->pid() == 0 || found->second.stopped)
      throw std::runtime_error("no alarm client " + id + " runs");
    socket = found->second.settings.socket;
  }
  return ControlClient(socket, kStartTime).Execute(command);
}

Json AlarmPeers::StateOf(const std::string& id) const {
  try {
    Json answer(cJSON_Parse(Ask(id, "state").c_str()));
    return Json(cJSON_DetachItemFromObjectCaseSensitive(answer.get(), "result"));
  } catch (const std::exception&) {
    return nullptr;  // it has died meanwhile
  }
}

}  // namespace zem::sim
