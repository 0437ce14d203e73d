#pragma once

#include <string>

namespace zem::sim {

/// The node's files that are no programs.  They are in "lib/zem-node" of the nearest folder above the running
/// program that has one: "/usr/lib/zem-node" for an installed node, and in a build tree a folder of links.
///
/// All paths are true paths, links followed, because a sandbox may hide the links but not what they lead to.
struct DataFolder {
  /// Scripts of the host, which the daemon calls.
  std::string host;
  /// The agent's own scripts.
  std::string agent_scripts;
  /// The host's dynamic libraries.
  std::string libraries;
  std::string scenarios;

  /// Looked for once in the life of a process, at the first call, which has to come before the process enters
  /// a sandbox.  From any thread.  Throws std::filesystem::filesystem_error when an entry is not there.
  static const DataFolder& Get();
};

}  // namespace zem::sim
