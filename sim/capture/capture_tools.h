#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace zem::sim::capture {

/// The host's tools of packet capture as the node sees them: how they behave, and what was asked of them.
/// They are "pktcap-uw", "tcpdump-uw", "find_portid" and "knlctlProxy".

/// Sets a tool's mode; without words it does its work.  Throws std::runtime_error for a name that is none.
void SetMode(const std::string& tool, const std::vector<std::string>& words);
void ClearModes();

/// A start of a tool, or a signal that it received (only the filter tells).
struct ToolRun {
  std::string tool;
  pid_t pid = 0;
  std::vector<std::string> words;
};
std::vector<ToolRun> Runs();
std::vector<ToolRun> Signals();
void ForgetRuns();

/// The processes of a tool that live now, the upload helper ("sbundle-upload.py") included.
std::vector<pid_t> Running(const std::string& tool);
/// What a daemon without a capture must not have on its host: processes of the tools, pipes, temporary files.
std::vector<std::string> Leftovers();

}  // namespace zem::sim::capture
