#include "framework/process/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/core/poll.h"
#include "platform/core/wipe_text.h"
#include "platform/knluser/knluser.h"

namespace zem::Tarvik {
namespace {

constexpr std::array kEndSignals = {SIGINT, SIGTERM, SIGKILL};
constexpr int kLookMs = 1000;
// Without a descriptor for the process its end has to be looked for.
constexpr int kBlindLookMs = 50;
constexpr int kPieces = 4;
constexpr int kLastPieces = 64;  // a pipe's content

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

bool OpenPipe(Pipe* pipe) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return false;
  pipe->read.Reset(ends[0]);
  pipe->write.Reset(ends[1]);
  return true;
}

void SetNonBlocking(const UniqueFd& fd) {
  ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) | O_NONBLOCK);
}

std::vector<const char*> Pointers(const std::vector<std::string>& texts) {
  std::vector<const char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const std::string& text : texts) pointers.push_back(text.c_str());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

ChildProcess::ChildProcess(Options options)
    : options_(std::move(options)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

ChildProcess::~ChildProcess() { WipeInput(); }

void ChildProcess::Stop() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t full_is_awake = ::write(wake_.get(), &one, sizeof(one));
}

ChildResult ChildProcess::Run() {
  ChildResult result;
  if (Start(&result)) Serve(&result);
  return result;
}

bool ChildProcess::Start(ChildResult* result) {
  Pipe in;
  Pipe out;
  Pipe err;
  if (!wake_ || !OpenPipe(&in) || !OpenPipe(&out) || !OpenPipe(&err)) {
    result->end = ChildEnd::kNoPipe;
    result->value = errno;
    return false;
  }
  const std::vector<const char*> argv = Pointers(options_.argv);
  std::vector<const char*> environment;
  if (options_.environment) environment = Pointers(*options_.environment);
  const char* const* const environment_or_ours = options_.environment ? environment.data() : environ;
  const int descriptors[3] = {in.read.get(), out.write.get(), err.write.get()};
  pid_t pid = -1;
  const int flags = (options_.own_group ? KNLUSER_NEW_GROUP : 0) |
                    (options_.ends_with_thread ? KNLUSER_ENDS_WITH_THREAD : 0);
  const int failed = KnluserCompat_ForkExec(argv.data(), environment_or_ours, descriptors, flags, &pid);
  if (failed != 0) {
    result->end = ChildEnd::kNotStarted;
    result->value = failed;
    return false;
  }
  pid_ = pid;
  result->pid = pid;
  pidfd_.Reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  input_ = std::move(in.write);
  output_ = std::move(out.read);
  errors_ = std::move(err.read);
  for (const UniqueFd* fd : {&input_, &output_, &errors_}) SetNonBlocking(*fd);
  if (options_.input.empty()) input_.Reset();
  return true;
}

void ChildProcess::Serve(ChildResult* result) {
  const TimePoint deadline = Clock::Process().Now() + options_.time_limit;
  for (;;) {
    const TimePoint now = Clock::Process().Now();
    if (options_.stop != nullptr && *options_.stop) AskToEnd(ChildEnd::kStopped);
    if (options_.time_limit > Duration::zero() && now >= deadline) AskToEnd(ChildEnd::kTimedOut);
    if (ending_ && step_ < kEndSignals.size() && now >= next_step_) NextStep();
    pollfd waits[] = {{input_.get(), POLLOUT, 0},
                      {output_.get(), POLLIN, 0},
                      {errors_.get(), POLLIN, 0},
                      {pidfd_.get(), POLLIN, 0},
                      {ending_ ? -1 : wake_.get(), POLLIN, 0}};
    TimePoint look = now + std::chrono::milliseconds(pidfd_ ? kLookMs : kBlindLookMs);
    if (ending_) {
      if (step_ < kEndSignals.size()) look = std::min(look, next_step_);
    } else if (options_.time_limit > Duration::zero()) {
      look = std::min(look, deadline);
    }
    PollAnswer(waits, std::size(waits), look);

    if (waits[0].revents != 0) WriteInput(result);
    if (!Drain(output_, kPieces, true, &result->output)) AskToEnd(ChildEnd::kOutputLimit);
    if (!Drain(errors_, kPieces, false, &result->errors)) AskToEnd(ChildEnd::kOutputLimit);
    if (Reap(result)) {
      // Reads what the child left in the pipes, and does not wait for what its own children go on to print.
      Drain(output_, kLastPieces, true, &result->output);
      Drain(errors_, kLastPieces, false, &result->errors);
      return;
    }
    if (waits[4].revents != 0) AskToEnd(ChildEnd::kStopped);
  }
}

void ChildProcess::WriteInput(ChildResult* result) {
  while (written_ < options_.input.size()) {
    const ssize_t part =
        ::write(input_.get(), options_.input.data() + written_, options_.input.size() - written_);
    if (part < 0 && errno == EAGAIN) return;
    if (part < 0 && errno == EINTR) continue;
    if (part < 0) {
      result->input_error = errno;
      break;
    }
    written_ += static_cast<size_t>(part);
  }
  input_.Reset();
  WipeInput();
}

void ChildProcess::WipeInput() {
  if (options_.secret_input) WipeText(&options_.input);
}

// Reads at most `pieces`, so that a stream without end leaves time for the flags.  False when the child has
// printed more than it may; what comes after that is thrown away.
bool ChildProcess::Drain(UniqueFd& pipe, int pieces, bool is_output, std::string* kept) {
  char piece[16 * 1024];
  bool within = true;
  while (pipe && pieces > 0) {
    const ssize_t got = ::read(pipe.get(), piece, sizeof(piece));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno == EAGAIN) break;
    if (got <= 0) {
      pipe.Reset();
      break;
    }
    --pieces;
    const std::string_view data(piece, static_cast<size_t>(got));
    if (is_output && options_.on_output) {
      options_.on_output(data);
    } else if (options_.output_rule == OutputRule::kEndChild) {
      const size_t room = options_.output_limit - kept->size();
      kept->append(data.substr(0, room));
      within = within && data.size() <= room;
    } else {
      kept->append(data);
      if (kept->size() > options_.output_limit) kept->erase(0, kept->size() - options_.output_limit);
    }
  }
  return within;
}

void ChildProcess::AskToEnd(ChildEnd why) {
  if (ending_) return;
  ending_ = why;
  next_step_ = Clock::Process().Now();
}

void ChildProcess::NextStep() {
  ::kill(options_.own_group ? -pid_ : pid_.load(), kEndSignals[step_]);
  ++step_;
  next_step_ = Clock::Process().Now() + options_.step;
}

bool ChildProcess::Reap(ChildResult* result) {
  int status = 0;
  pid_t waited = -1;
  do {
    waited = ::waitpid(pid_, &status, WNOHANG);
  } while (waited < 0 && errno == EINTR);
  if (waited == 0) return false;
  pid_ = -1;
  if (waited < 0) {
    result->end = ChildEnd::kGone;
  } else if (ending_) {
    result->end = *ending_;
  } else if (WIFEXITED(status)) {
    result->end = ChildEnd::kExited;
    result->value = WEXITSTATUS(status);
  } else {
    result->end = ChildEnd::kSignalled;
    result->value = WTERMSIG(status);
  }
  return true;
}

}  // namespace zem::Tarvik
