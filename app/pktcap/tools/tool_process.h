#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "platform/core/unique_fd.h"

/// Processes of the capture code.  They end with the thread that starts them, so that a killed daemon leaves
/// none behind; long-lived threads start them.
///
/// Threads: any long-lived thread; all functions but `Popen` block.
namespace zem::Tarvik {

/// Starts a program whose environment is the agent's python path alone.  A descriptor that is asked for gets
/// this side's end of a pipe; one that is null is "/dev/null".  Returns the pid, or -1 after a log line.
[[nodiscard]] pid_t Popen(const std::vector<std::string>& argv, UniqueFd* input, UniqueFd* output,
                          UniqueFd* errors);
/// The same with descriptors of the caller's, -1 for "/dev/null".
[[nodiscard]] pid_t Popen(const std::vector<std::string>& argv, const int descriptors[3]);

/// What ends a command before its own end.
struct CommandEnd {
  /// Looked at once a second; may be null.
  const std::atomic<bool>* stop = nullptr;
  /// Zero: none.
  Duration limit{0};
};

/// Runs a program to its end.  `input` may hold secrets; it is overwritten.  What the program prints (the
/// last 64 KiB of each) goes to `output` and `error_text`. Returns its exit status, -1 when it could not be
/// started or did not end by itself.
[[nodiscard]] int InvokeCmd(const std::vector<std::string>& argv, std::string input, std::string* output,
                            std::string* error_text, const CommandEnd& end);

/// Interrupts a child and gives it so many seconds; then it is terminated, then killed.  Returns 0 when it
/// has ended and was waited for; -1 when this process is not root.
[[nodiscard]] int KillGraceful(pid_t pid, int seconds);

/// Waits for a child's end until `deadline`; its status is dropped.  Returns whether it has ended.
[[nodiscard]] bool WaitForChild(pid_t pid, TimePoint deadline);

/// Finds the index of a network interface.  Returns 0, or -1 after a log line.
[[nodiscard]] int FindIfIndex(const std::string& name, int* index);

/// Returns a path that nothing has, made from a template that ends with "XXXXXX"; empty on failure.
std::string TemporaryName(const std::string& pattern);

}  // namespace zem::Tarvik
