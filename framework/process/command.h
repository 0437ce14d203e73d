#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/clock.h"

struct KnluserCompat_Pipe;

/// Runs commands of the host.  All waits end at the daemon's shutdown.
///
/// Threads: any thread; the functions block, so a provider's thread must not call them.
namespace zem::Tarvik {

/// Runs a program with `input` on its standard input and an environment of one entry.  Returns the exit code;
/// -1 when it could not be run, died by a signal, did not take its input, or when `*stop` was set.  In that
/// last case the child is interrupted, and killed if that does not help.  `stop` may be null.
[[nodiscard]] int ExecuteCmd(const std::vector<std::string>& argv, std::string input,
                             const std::atomic<bool>* stop);

namespace Util {

/// Closes the pipe and waits for the child.  Returns its exit code, or -1 with `*error` set.
int ClosePipeQub(KnluserCompat_Pipe* handle, std::string* error);

/// Runs a shell command with `input` on its standard input.  Returns the exit code, or -1 with `*error` set.
[[nodiscard]] int ExecuteCmd(const std::string& command, std::string_view input, std::string* error);

/// What ends a command before its own end, besides the shutdown.  Whatever the command has started ends too.
struct CommandBounds {
  /// In real time, which is also the command's.
  Duration limit = std::chrono::minutes(2);
  /// -1, or a descriptor that becomes readable when the command has to end.
  int stop_fd = -1;
  /// For what the stop itself has to do: the shutdown does not end the command.
  bool through_shutdown = false;
};

/// Runs a shell command and appends what it prints (at most 16 MiB) to `*output`.  Returns the exit code, or
/// -1 with `*error` set.
[[nodiscard]] int ReadCmdOutput(const std::string& command, std::string* output, std::string* error,
                                const CommandBounds& bounds);
/// The same with the default bounds.
[[nodiscard]] int ReadCmdOutput(const std::string& command, std::string* output, std::string* error);

}  // namespace Util
}  // namespace zem::Tarvik
