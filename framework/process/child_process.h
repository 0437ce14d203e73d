#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/clock.h"
#include "platform/core/unique_fd.h"

namespace zem::Tarvik {

/// How a child's life ended.
enum class ChildEnd {
  kExited,       ///< by itself; the value is its exit code
  kSignalled,    ///< by a signal that we did not send; the value is the signal
  kStopped,      ///< by us: the stop flag or Stop()
  kTimedOut,     ///< by us: it ran longer than allowed
  kOutputLimit,  ///< by us: it printed more than allowed
  kGone,         ///< somebody else has waited for it; nothing is known
  kNoPipe,       ///< never started: no pipe; the value is the errno
  kNotStarted,   ///< never started: no program; the value is the errno
};

struct ChildResult {
  ChildEnd end = ChildEnd::kNotStarted;
  int value = 0;
  pid_t pid = -1;
  /// The errno that ended the writing of the input, 0 when it was taken whole.
  int input_error = 0;
  std::string output;
  std::string errors;
};

/// Runs one program to its end: feeds its input, drains both outputs, enforces the limits, waits for it.
///
/// One loop over non-blocking pipes, so that neither a child that does not read nor one that prints without
/// end can hold its runner.  A child that must end is interrupted, then asked to terminate, then killed, a
/// `step` apart. Threads: `Run` once, by the owner; `Stop` and `pid` from any thread.
class ChildProcess {
 public:
  enum class OutputRule {
    kKeepLast,  ///< beyond the limit the oldest bytes are forgotten
    kEndChild,  ///< beyond the limit the child is ended
  };

  struct Options {
    std::vector<std::string> argv;
    /// Nothing: this process's.
    std::optional<std::vector<std::string>> environment;
    std::string input;
    /// The input is overwritten when it has been written, or cannot be.
    bool secret_input = false;
    /// Looked at once a second; may be null.
    const std::atomic<bool>* stop = nullptr;
    /// Zero: none.
    Duration time_limit{0};
    /// Bytes kept of each of the two outputs.
    size_t output_limit = 4096;
    OutputRule output_rule = OutputRule::kKeepLast;
    /// Gets the standard output as it comes instead of the result; on the runner's thread.
    std::function<void(std::string_view)> on_output;
    /// Signals go to the child and all that it started.
    bool own_group = false;
    /// The child is killed when the runner's thread ends with the process, in whatever way.
    bool ends_with_thread = false;
    Duration step = std::chrono::seconds(2);
  };

  explicit ChildProcess(Options options);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  [[nodiscard]] ChildResult Run();

  /// Ends the child from outside; at once, without waiting for the next look at the flag.
  void Stop();

  /// -1 before the start and after the end.
  pid_t pid() const { return pid_; }

 private:
  [[nodiscard]] bool Start(ChildResult* result);
  void Serve(ChildResult* result);
  void WriteInput(ChildResult* result);
  void WipeInput();
  bool Drain(UniqueFd& pipe, int pieces, bool is_output, std::string* kept);
  void AskToEnd(ChildEnd why);
  void NextStep();
  bool Reap(ChildResult* result);

  Options options_;
  std::atomic<pid_t> pid_{-1};
  UniqueFd wake_;
  UniqueFd pidfd_;
  UniqueFd input_;
  UniqueFd output_;
  UniqueFd errors_;
  size_t written_ = 0;
  std::optional<ChildEnd> ending_;
  size_t step_ = 0;
  TimePoint next_step_;
};

}  // namespace zem::Tarvik
