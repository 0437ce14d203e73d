#pragma once

#include <sys/types.h>

#include <mutex>
#include <string>
#include <vector>

#include "platform/core/unique_fd.h"
#include "platform/knluser/knluser.h"

namespace zem::Tarvik {

/// Returns the shell command that looks for a process by `name` and sends it `signal` ("-9", "-TERM").  It
/// prints "no process found", or which process it signalled.
std::string KillByNameCommand(const std::string& name, const std::string& signal);

/// Kills the process with the id `pid`.  Returns what the shell printed.
std::string KillProcess(const std::string& pid);

/// A script of the host that runs as a child: started by the shell, found by its process name, connected to
/// through its Unix socket, watched through that connection, and killed with its process group.
///
/// It logs at debug level only: how a failure reads in the log is the owner's.
///
/// Threads: one at a time, except `pid`, `KillByName`, `WaitForEnd` and `WakeWatcher`, which any
/// thread may call.  `Connect`, `Find` and the kills block.
class ScriptChild {
 public:
  struct Options {
    /// Starts the script.
    std::string command;
    std::string process_name;
    std::string socket;
    /// Shell commands that kill by name; see `KillByNameCommand`.
    std::vector<std::string> kill_commands;
  };

  explicit ScriptChild(Options options);
  ~ScriptChild();
  ScriptChild(const ScriptChild&) = delete;
  ScriptChild& operator=(const ScriptChild&) = delete;

  /// Starts the command.  Returns 0 or an errno.
  [[nodiscard]] int Spawn();
  /// Looks for the process by name.  When it is there, keeps its process id and returns true.
  [[nodiscard]] bool Find();
  /// The process id that `Find` kept; empty when unknown.
  std::string pid() const;
  /// The script's process may have ended, and its id may belong to another one by now.
  void ForgetPid();

  /// Connects to the script's socket, with retries.  False sets errno.
  [[nodiscard]] bool Connect();
  void Disconnect();
  /// The connection; -1 when there is none.
  int socket() const { return socket_.get(); }
  /// The other end of the connection is closed.
  bool HasEnded() const;
  /// Reads what the script has printed until now, without waiting, into `text`.  Returns the errno of a pipe
  /// that cannot be read without waiting, else 0; `text` is empty when nothing was printed.
  [[nodiscard]] int ReadPrinted(std::string* text);

  /// Runs the kill commands.  Returns what they printed.
  std::string KillByName();
  /// Kills the child with its group and waits for its end.  No effect when there is none.
  void Kill();
  /// Takes the child's exit if it has ended, so that it is not listed as a process any more; does not wait.
  void Reap();
  /// The shell that `Spawn` started; -1 when there is none.
  pid_t child() const { return pipe_.pid; }
  /// The pipe with what the script prints; -1 when there is none.
  int output() const { return pipe_.fd; }

  /// Waits until the connection ends or `WakeWatcher` is called; returns at once when there is no connection.
  void WaitForEnd();
  void WakeWatcher();
  /// Returns whether `WaitForEnd` can wait: the connection has a second descriptor, for the watcher alone.
  bool IsWatched();

 private:
  const Options options_;
  KnluserCompat_Pipe pipe_{-1, -1};
  UniqueFd socket_;
  const UniqueFd wake_;
  std::mutex watched_mutex_;      // guards watched_
  UniqueFd watched_;              // the socket once more: the owner may hold its own lock for minutes
  mutable std::mutex pid_mutex_;  // guards pid_, which is wanted while the owner works
  std::string pid_;
};

}  // namespace zem::Tarvik
