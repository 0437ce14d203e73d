#pragma once

#include <string>
#include <vector>

namespace zem::sim {

class CommandTable;

/// Where the host's tools find the state of the intrusion detection process.
inline constexpr const char* kDetectionFolder = "/run/zem-detection";

/// The commands "start", "stop", "memory", "folder", "tool", "runs" and "show" for the host's intrusion
/// detection process as the host's tools see it.
void RegisterDetectionCommands(CommandTable& table);

/// The process's part of the node's picture.
std::vector<std::string> DrawDetection();

}  // namespace zem::sim
