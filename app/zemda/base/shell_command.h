#pragma once

#include <string>

namespace ZemDa {

class Interruption;

struct shellCommand {
  /// Split at blanks into at most six words; there is no quoting.
  std::string command;
  /// For log lines.
  std::string description;
};

/// Runs a command of the host and appends what it prints to `*output`.  Returns its exit status, 0 when it
/// was killed by somebody else, and -1 when it could not be run.  After 30 seconds of real time, 4 MiB of
/// output, or at an interruption the command and all that it has started is ended, for -1; the interruption
/// stays requested.  `interruption` may be null.
[[nodiscard]] int ExecuteCommand(const shellCommand& command, std::string* output,
                                 Interruption* interruption);

}  // namespace ZemDa
