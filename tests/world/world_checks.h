#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace orlane::zem::switching {
class HostConfigMsg;
}

namespace zem::world {

class WorldNode;

/// What must be true of a node at quiet, one line for each thing that is not.  Empty: all is well.
///
/// The host is what `config` says.
std::vector<std::string> CheckHost(WorldNode& node, const orlane::zem::switching::HostConfigMsg& config);
/// The host's networks are the store's logical switches `numbers`, no more and no less, and the store knows
/// that the host has all up to `barrier`.
std::vector<std::string> CheckNetworks(WorldNode& node, const std::set<uint32_t>& numbers, uint64_t barrier);
/// Ports, their files, VMs and the manager agree about every VIF.
std::vector<std::string> CheckVifs(WorldNode& node);
/// Every switch shows `state` as the health of the agent.
std::vector<std::string> CheckHealth(WorldNode& node, const std::string& state);
/// No peer was treated against its rules, and nobody waits for an answer of the agent.
std::vector<std::string> CheckManners(WorldNode& node);

}  // namespace zem::world
