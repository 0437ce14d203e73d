#include "app/pktcap/tools/tool_process.h"

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "framework/log/log.h"
#include "framework/process/child_process.h"
#include "platform/core/poll.h"
#include "platform/core/thread.h"
#include "platform/knluser/knluser.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "pktcap"};

constexpr const char* kEnvironment = "PYTHONPATH=/opt/orlane/zem-tarvik/libexec/python";
constexpr size_t kOutputLimit = size_t{64} << 10U;
constexpr auto kBlindLook = std::chrono::milliseconds(50);
constexpr auto kTerminated = std::chrono::milliseconds(200);
constexpr auto kKilled = std::chrono::seconds(2);

std::string CommandLine(const std::vector<std::string>& argv) {
  std::string line;
  for (const std::string& word : argv) line += (line.empty() ? "" : " ") + word;
  return line;
}

// Opens a pipe for a descriptor of the child's; `ours` keeps this side's end.
bool OpenPipe(bool child_reads, UniqueFd* ours, UniqueFd* theirs) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return false;
  ours->Reset(ends[child_reads ? 1 : 0]);
  theirs->Reset(ends[child_reads ? 0 : 1]);
  return true;
}

// Waits for a child without waiting.  A child that somebody else has waited for has ended too.
bool HasEnded(pid_t pid) {
  pid_t waited = -1;
  do {
    waited = ::waitpid(pid, nullptr, WNOHANG);
  } while (waited < 0 && errno == EINTR);
  return waited != 0;
}

}  // namespace

pid_t Popen(const std::vector<std::string>& argv, UniqueFd* input, UniqueFd* output, UniqueFd* errors) {
  UniqueFd* const ours[] = {input, output, errors};
  UniqueFd theirs[3];
  int descriptors[3] = {-1, -1, -1};
  for (int i = 0; i < 3; ++i) {
    if (ours[i] == nullptr) continue;
    if (!OpenPipe(i == 0, ours[i], &theirs[i])) {
      ZLOG_ERROR("OPS01002", "%s: Fork failed. error=%s", __func__, std::strerror(errno));
      return -1;
    }
    descriptors[i] = theirs[i].get();
  }
  return Popen(argv, descriptors);
}

pid_t Popen(const std::vector<std::string>& argv, const int descriptors[3]) {
  const std::string line = CommandLine(argv);
  if (argv.empty()) {
    ZLOG_ERROR("OPS01002", "Invoke cmd: %s fatal error", line.c_str());
    return -1;
  }
  ZLOG_INFO("Invoke cmd: %s", line.c_str());
  std::vector<const char*> words;
  words.reserve(argv.size() + 1);
  for (const std::string& word : argv) words.push_back(word.c_str());
  words.push_back(nullptr);
  const char* const environment[] = {kEnvironment, nullptr};
  pid_t pid = -1;
  const int failed =
      KnluserCompat_ForkExec(words.data(), environment, descriptors, KNLUSER_ENDS_WITH_THREAD, &pid);
  if (failed != 0) {
    ZLOG_ERROR("OPS01002", "%s: Fork failed. error=%s", __func__, std::strerror(failed));
    return -1;
  }
  ZLOG_INFO("Spawned a new process: pid %d", static_cast<int>(pid));
  return pid;
}

int InvokeCmd(const std::vector<std::string>& argv, std::string input, std::string* output,
              std::string* error_text, const CommandEnd& end) {
  ZLOG_INFO("Invoke cmd: %s", CommandLine(argv).c_str());
  ChildProcess::Options options;
  options.argv = argv;
  options.environment = std::vector<std::string>{kEnvironment};
  options.input = std::move(input);
  options.secret_input = true;
  options.stop = end.stop;
  options.time_limit = end.limit;
  options.output_limit = kOutputLimit;
  options.own_group = true;
  options.ends_with_thread = true;
  ChildProcess child(std::move(options));
  ChildResult result = child.Run();
  *output = std::move(result.output);
  *error_text = std::move(result.errors);
  switch (result.end) {
    case ChildEnd::kExited:
      return result.value;
    case ChildEnd::kNoPipe:
    case ChildEnd::kNotStarted:
      *error_text = std::strerror(result.value);
      ZLOG_ERROR("OPS01002", "%s: Fork failed. error=%s", __func__, error_text->c_str());
      return -1;
    case ChildEnd::kGone:
      ZLOG_INFO("%s: child %d terminated already, errno=%d", __func__, static_cast<int>(result.pid), ECHILD);
      return -1;
    default:
      ZLOG_INFO("%s: child %d exited abnormally, ret=%d", __func__, static_cast<int>(result.pid),
                result.value);
      return -1;
  }
}

bool WaitForChild(pid_t pid, TimePoint deadline) {
  const UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  while (!HasEnded(pid)) {
    const TimePoint now = Clock::Process().Now();
    if (now >= deadline) return false;
    pollfd wait{process.get(), POLLIN, 0};
    PollAnswer(&wait, 1, process ? deadline : std::min<TimePoint>(deadline, now + kBlindLook));
  }
  return true;
}

int KillGraceful(pid_t pid, int seconds) {
  if (::geteuid() != 0) {
    ZLOG_ERROR("OPS01003", "%s is unable to kill process without root %d", __func__, static_cast<int>(pid));
    return -1;
  }
  // A pid that was waited for may be another process's by now.
  if (HasEnded(pid)) return 0;
  ZLOG_INFO("subprocess %d is killed by SIGINT", static_cast<int>(pid));
  ::kill(pid, SIGINT);
  if (WaitForChild(pid, Clock::Process().Now() + std::chrono::seconds(seconds))) return 0;
  ZLOG_INFO("subprocess %d is forcely killed by SIGTERM", static_cast<int>(pid));
  ::kill(pid, SIGTERM);
  if (WaitForChild(pid, Clock::Process().Now() + kTerminated)) return 0;
  ::kill(pid, SIGKILL);
  return WaitForChild(pid, Clock::Process().Now() + kKilled) ? 0 : -1;
}

int FindIfIndex(const std::string& name, int* index) {
  const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) {
    ZLOG_ERROR("OPS01002", "%s: failed to open socket", __func__);
    return -1;
  }
  ifreq request{};
  if (name.size() >= sizeof(request.ifr_name)) {
    ZLOG_ERROR("OPS01002", "%s: interface name is too long: %s", __func__, name.c_str());
    return -1;
  }
  name.copy(request.ifr_name, name.size());
  if (::ioctl(socket.get(), SIOCGIFINDEX, &request) != 0) {
    ZLOG_ERROR("OPS01002", "%s: interface name not found: %s", __func__, name.c_str());
    return -1;
  }
  *index = request.ifr_ifindex;
  ZLOG_INFO("%s: found ifindex=%d", __func__, *index);
  return 0;
}

std::string TemporaryName(const std::string& pattern) {
  std::string name = pattern;
  const UniqueFd file(::mkostemp(name.data(), O_CLOEXEC));
  if (!file || ::unlink(name.c_str()) != 0) return {};
  return name;
}

}  // namespace zem::Tarvik
