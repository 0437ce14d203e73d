#pragma once

#include <functional>
#include <string>

namespace zem::sim {

/// A node's own view of the machine: mounts, network, processes.  Nothing on the machine is changed, and
/// nothing stays behind when the sandbox ends, however it ends.
///
/// Inside, "/etc", "/opt", "/usr/local", "/usr/lib" and "/usr/lib64" are the machine's with the node's
/// changes over them; "/run", "/tmp", "/var/log" and "/dev" are the node's own; the only network interface is
/// loopback, and it is up; "/proc" shows only the node's processes.  `directory` is also mounted at
/// kNodeDirectory.
struct SandboxOptions {
  /// An existing folder on the machine, for sockets and files that are used from outside.
  std::string directory;
  /// The program that is installed at kDaemonPath.  When it is the one that the machine has there, the node
  /// has the machine's installation with its options, and packages can be installed in it; otherwise
  /// "/etc/orlane" starts empty.
  std::string daemon;
  /// A folder that is mounted at kHostScripts; empty: none.
  std::string host_scripts = "";
  /// A folder that stays visible at its own path, whatever the new mounts hide; or empty.
  std::string libraries = "";
  /// A folder that is mounted at kDatastore and may be shared with another node; empty: the node's own.
  std::string datastore = "";
  /// The agent's own scripts, mounted at kAgentScripts; empty: none.
  std::string agent_scripts = "";
};

inline constexpr const char* kNodeDirectory = "/run/zem-node";
inline constexpr const char* kHostScripts = "/usr/lib64/orlane/zem-tarvik/pylum/zema";
inline constexpr const char* kAgentScripts = "/usr/lib64/orlane/zem-tarvik/libexec";
inline constexpr const char* kDatastore = "/var/datastore";
inline constexpr const char* kDaemonPath = "/opt/orlane/zem-tarvik/bin/zem-tarvik";

/// Runs `body` in a new sandbox, whose first process reaps orphans.  Returns the exit code, or 128 plus the
/// signal's number when `body` was killed by one.  The sandbox ends as soon as the body, this process, or the
/// caller's parent ends.  Throws std::system_error when the system does not permit a sandbox (it needs root).
int RunInSandbox(const SandboxOptions& options, const std::function<int()>& body);

}  // namespace zem::sim
