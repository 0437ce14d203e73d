#pragma once

#include <string>
#include <vector>

namespace zem::sim {

class CommandTable;
class HostState;

/// Where the script of the host's management API keeps the neighbours and its journal.
inline constexpr const char* kNeighbourFolder = "/run/zem-neighbours";

/// Registers the commands over the neighbours of the host's interfaces, and over the script that tells them.
/// `state` outlives the table.
void RegisterNeighbourCommands(CommandTable& table, const HostState& state);

/// The neighbours in the node's picture.
std::vector<std::string> DrawNeighbours();

/// Requests that the script's host API would not understand.
std::vector<std::string> NeighbourViolations();

}  // namespace zem::sim
