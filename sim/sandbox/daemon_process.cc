#include "sim/sandbox/daemon_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace zem::sim {

DaemonProcess::DaemonProcess(std::string path, std::string output_path, std::vector<std::string> arguments)
    : path_(std::move(path)), output_path_(std::move(output_path)), arguments_(std::move(arguments)) {
  environment_["PATH"] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
}

DaemonProcess::~DaemonProcess() {
  Kill(SIGKILL);
  if (reaper_.joinable()) reaper_.Join();
}

void DaemonProcess::SetEnvironment(const std::string& name, const std::string& value) {
  std::lock_guard lock(mutex_);
  environment_[name] = value;
}

bool DaemonProcess::Start() {
  NativeThread finished;
  std::lock_guard lock(mutex_);
  if (pid_ != 0) return false;
  finished = std::move(reaper_);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, output_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  // The daemon must not inherit its peers' listeners: a peer has to be able to close and reopen its socket.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::vector<std::string> variables;
  variables.reserve(environment_.size());
  for (const auto& [name, value] : environment_) {
    variables.push_back(name);
    variables.back().append("=").append(value);
  }
  std::vector<char*> environment;
  environment.reserve(variables.size() + 1);
  for (std::string& variable : variables) environment.push_back(variable.data());
  environment.push_back(nullptr);
  std::vector<std::string> words = arguments_;
  words.insert(words.begin(), path_);
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  pid_t pid = 0;
  const int result =
      posix_spawn(&pid, path_.c_str(), &actions, &attributes, arguments.data(), environment.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (result != 0) throw std::system_error(result, std::generic_category(), "start " + path_);
  pid_ = pid;
  ++starts_;
  status_.reset();
  NativeThread::Options options;
  options.name = "reaper";
  options.counts_as_work = false;
  reaper_ = NativeThread(std::move(options), [this, pid] { Reap(pid); });
  return true;
}

void DaemonProcess::Reap(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  std::lock_guard lock(mutex_);
  pid_ = 0;
  status_ = status;
  ended_.NotifyAll();
}

bool DaemonProcess::Kill(int signal) {
  std::lock_guard lock(mutex_);
  return pid_ != 0 && ::kill(pid_, signal) == 0;
}

std::optional<int> DaemonProcess::Wait(Duration timeout) {
  std::unique_lock lock(mutex_);
  ended_.WaitFor(lock, timeout, [this] { return pid_ == 0; });
  return pid_ == 0 ? status_ : std::nullopt;
}

pid_t DaemonProcess::pid() const {
  std::lock_guard lock(mutex_);
  return pid_;
}

uint64_t DaemonProcess::starts() const {
  std::lock_guard lock(mutex_);
  return starts_;
}

std::string WaitStatusText(int status) {
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  return "exit " + std::to_string(WEXITSTATUS(status));
}

}  // namespace zem::sim
