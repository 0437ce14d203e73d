#pragma once

#include <sys/types.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/core/condition.h"
#include "platform/core/thread.h"

namespace zem::sim {

/// A program of the node, above all the daemon under test, started and stopped as a service manager would.
///
/// Threads: all operations from any thread.
class DaemonProcess {
 public:
  /// The program's standard output and error are written to `output_path`.
  DaemonProcess(std::string path, std::string output_path, std::vector<std::string> arguments = {});
  ~DaemonProcess();

  void SetEnvironment(const std::string& name, const std::string& value);

  /// Returns false when it already runs.  Throws std::system_error when it cannot be started.
  bool Start();
  /// Returns false when it does not run.
  bool Kill(int signal);
  /// The wait status of the last run, once it has ended; nothing when it still runs after `timeout`.
  std::optional<int> Wait(Duration timeout);
  /// The process id; 0 when it does not run.
  pid_t pid() const;
  uint64_t starts() const;

 private:
  void Reap(pid_t pid);

  const std::string path_;
  const std::string output_path_;
  const std::vector<std::string> arguments_;
  mutable std::mutex mutex_;  // guards what follows
  Condition ended_;
  std::map<std::string, std::string> environment_;
  pid_t pid_ = 0;
  uint64_t starts_ = 0;
  std::optional<int> status_;
  NativeThread reaper_;
};

/// Describes a wait status: "exit 0", "signal 9".
std::string WaitStatusText(int status);

}  // namespace zem::sim
