#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/clock.h"

struct KnluserCompat_Pipe;

/// Commands, pipes and sockets of the host.  All waits end at the daemon's shutdown.  From any thread; they
/// block, so never from a provider's.
namespace zem::Tarvik {

/// Connects to the Unix socket `path` (at most 107 bytes): a descriptor that the caller closes, or -1.  With
/// `retry` up to 60 more attempts, a second apart.
[[nodiscard]] int ConnectToUnixSocket(const std::string& path, bool retry);

/// Reads until `length` bytes are there or the stream ends; `*got` is the total.  0, or -1 on failure.  An
/// interrupt during the shutdown ends it short with 0.
[[nodiscard]] int ReadData(int fd, void* buffer, size_t length, int* got);

/// Runs a program with `input` on its standard input and an environment of one entry.  The exit code; -1 when
/// it could not be run, died by a signal, did not take its input, or when `*stop` was set: the child is then
/// interrupted, and killed if that does not help.  `stop` may be null.
[[nodiscard]] int ExecuteCmd(const std::vector<std::string>& argv, std::string input,
                             const std::atomic<bool>* stop);

/// Writes "Panic: " and the message to standard error and aborts.
[[noreturn]] void Panic(const char* format, ...) __attribute__((format(printf, 1, 2)));

namespace Util {

/// Waits for `fd` (-1: none) and the shutdown: 1 ready, 0 time-out or shutdown only, -1 failure.
[[nodiscard]] int IsReadyToBeRead(int fd, bool* shutdown, int timeout_seconds);

/// The same for the answer of a process that works for the caller: a virtual clock stands still meanwhile.
[[nodiscard]] int IsAnswerReady(int fd, bool* shutdown, int timeout_seconds);

/// Bytes written, or -1.
ssize_t WriteData(int fd, const void* buffer, size_t length);

/// Closes the pipe and waits for the child: its exit code, or -1 with `*error` set.
int ClosePipeQub(KnluserCompat_Pipe* handle, std::string* error);

/// Runs a shell command with `input` on its standard input.  The exit code, or -1 with `*error` set.
[[nodiscard]] int ExecuteCmd(const std::string& command, std::string_view input, std::string* error);

/// What ends a command before its own end, besides the shutdown; with it goes all that it has started.
struct CommandBounds {
  /// Real time, as the command's own.
  Duration limit = std::chrono::minutes(2);
  /// -1, or a descriptor that becomes readable when the command has to end.
  int stop_fd = -1;
};

/// Runs a shell command and appends what it prints (at most 16 MiB).  The exit code, or -1 with `*error` set.
[[nodiscard]] int ReadCmdOutput(const std::string& command, std::string* output, std::string* error,
                                const CommandBounds& bounds);
/// The same with the usual bounds.
[[nodiscard]] int ReadCmdOutput(const std::string& command, std::string* output, std::string* error);

std::string GetErrMsg(int error);

}  // namespace Util
}  // namespace zem::Tarvik
