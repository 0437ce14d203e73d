#include "sim/switch/tree/library_call.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "sim/switch/tree/state_tree.h"

// Defined only when the process is to be killed at chosen steps (sim/killpoints).
extern "C" __attribute__((weak, visibility("default"))) void zem_kill_point_begin(const char* function,
                                                                                  const char* subject);
extern "C" __attribute__((weak, visibility("default"))) void zem_kill_point_end();

namespace zem::sim {
namespace {

constexpr long kHangStep = 20'000'000;  // nanoseconds between checks whether the rule still exists

// A log that is open for as long as the library is loaded; each line is written whole.
class LineLog {
 public:
  void Write(const std::string& path, const std::string& line) {
    std::lock_guard lock(mutex_);
    if (path != path_ || fd_ < 0) {
      if (fd_ >= 0) ::close(fd_);
      fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
      path_ = path;
    }
    if (fd_ >= 0 && ::write(fd_, line.data(), line.size()) < 0) {
      std::fprintf(stderr, "%s: %s\n", path.c_str(), std::strerror(errno));
    }
  }
  ~LineLog() {
    if (fd_ >= 0) ::close(fd_);
  }

 private:
  std::mutex mutex_;  // guards all below
  std::string path_;
  int fd_ = -1;
};

LineLog calls;

void AppendText(std::string* line, const char* name, std::string_view text) {
  line->append(",\"").append(name).append("\":\"");
  for (const char c : text) {
    if (c == '"' || c == '\\') line->push_back('\\');
    line->push_back(static_cast<unsigned char>(c) < 0x20 ? '?' : c);
  }
  line->push_back('"');
}

void Sleep(long nanoseconds) {
  timespec left{nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

double Seconds(const timespec& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

bool StillHangs(const CallSubject& subject) {
  const auto rules = ReadFaultRules();
  return std::any_of(rules.begin(), rules.end(),
                     [&](const FaultRule& rule) { return rule.hang && rule.Matches(subject); });
}

// Calls that only read, or work on the caller's own memory, do not change the host.
bool ChangesHost(std::string_view function) {
  constexpr std::string_view kHarmless[] = {"DVSData_", "DVSState_", "Get", "Find", "List", "Release"};
  return std::none_of(std::begin(kHarmless), std::end(kHarmless),
                      [&](std::string_view part) { return function.find(part) != std::string_view::npos; });
}

void BeginKillPoint(const CallSubject& subject) {
  if (zem_kill_point_begin == nullptr) return;
  std::string text = subject.port != nullptr ? subject.port : subject.dvs != nullptr ? subject.dvs : "";
  if (subject.property != nullptr) text.append(" ").append(subject.property);
  zem_kill_point_begin(ChangesHost(subject.function) ? subject.function : nullptr, text.c_str());
}

}  // namespace

LibraryCall::LibraryCall(const CallSubject& subject) : subject_(subject) {
  BeginKillPoint(subject);
  clock_gettime(CLOCK_MONOTONIC, &start_);
  const auto fault = TakeFault(subject);
  if (!fault) return;
  if (fault->delay_ms != 0) Sleep(static_cast<long>(fault->delay_ms) * 1'000'000);
  if (fault->hang) {
    while (StillHangs(subject)) Sleep(kHangStep);
  }
  fails_ = fault->ret || fault->error_number;
  result_ = fault->ret.value_or(UINT32_MAX);
  error_number_ = fault->error_number.value_or(0);
}

LibraryCall::~LibraryCall() {
  const int error = errno;
  timespec end{};
  clock_gettime(CLOCK_MONOTONIC, &end);
  char head[160];
  std::snprintf(head, sizeof(head), "{\"start\":%.6f,\"end\":%.6f,\"pid\":%d,\"tid\":%ld", Seconds(start_),
                Seconds(end), ::getpid(), ::syscall(SYS_gettid));
  std::string line = head;
  AppendText(&line, "function", subject_.function);
  if (subject_.dvs != nullptr) AppendText(&line, "sw", subject_.dvs);
  if (subject_.port != nullptr) AppendText(&line, "port", subject_.port);
  if (subject_.property != nullptr) AppendText(&line, "prop", subject_.property);
  std::snprintf(head, sizeof(head), ",\"length\":%u,\"result\":\"0x%x\"}\n", length_, result_);
  calls.Write(tree::CallsFile(), line + head);
  if (zem_kill_point_end != nullptr) zem_kill_point_end();
  errno = error;
}

void Violation(const char* function, std::string_view what) {
  std::string line = "{\"pid\":" + std::to_string(::getpid());
  AppendText(&line, "function", function);
  AppendText(&line, "what", what);
  // The file is opened for each violation: there are few, and the last ones are logged while the library is
  // unloaded and its static objects are destroyed.
  LineLog().Write(tree::ViolationsFile(), line + "}\n");
}

}  // namespace zem::sim
