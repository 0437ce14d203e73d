#pragma once

#include <functional>
#include <string>

namespace zem::sim {

/// A node's own view of the machine: mounts, network, processes.  Nothing of the machine is changed, and
/// nothing stays behind when the sandbox ends, however it ends.
///
/// Inside: "/etc", "/opt", "/usr/local", "/usr/lib", "/usr/lib64" are the machine's with the node's changes
/// over them;
/// "/run", "/tmp",
/// "/var/log" and "/dev" are the node's own; loopback is up and alone; "/proc" shows the node's processes
/// only.  `directory` is seen at kNodeDirectory too, whatever the new mounts hide.
struct SandboxOptions {
  /// Existing folder on the machine; sockets and files that outsiders use live there.
  std::string directory;
  /// The program that becomes kDaemonPath.
  std::string daemon;
  /// Folder that is seen at kHostScripts; empty leaves it away.
  std::string host_scripts = "";
  /// Folder that is seen at its own path, whatever the new mounts hide; or empty.
  std::string libraries = "";
  /// Folder that is seen at kDatastore, where another node may see it too; empty: the node's own.
  std::string datastore = "";
};

inline constexpr const char* kNodeDirectory = "/run/zem-node";
inline constexpr const char* kHostScripts = "/usr/lib64/orlane/zem-tarvik/pylum/zema";
inline constexpr const char* kDatastore = "/var/datastore";
inline constexpr const char* kDaemonPath = "/opt/orlane/zem-tarvik/bin/zem-tarvik";

/// Runs `body` in a new sandbox, whose first process reaps orphans, and gives its exit code; the code is 128
/// and the signal's number when it died by one.  The sandbox ends with the first of the body, this process,
/// and the caller's parent. Throws std::system_error when the system does not give a sandbox (it takes root).
int RunInSandbox(const SandboxOptions& options, const std::function<int()>& body);

}  // namespace zem::sim
