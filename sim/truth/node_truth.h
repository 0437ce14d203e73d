#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace orlane::zem::switching {
class HostConfigMsg;
}

namespace zem::sim {

class HostManagement;
class HostState;
class Manager;
class Store;
class SwitchState;
class VirtualMachines;

/// What must be true of a node at quiet, one line for each thing that is not.  Empty: all is well.
///
/// The host is what `config` says.
std::vector<std::string> CheckHost(const HostState& host,
                                   const orlane::zem::switching::HostConfigMsg& config);
/// The host's networks are the store's logical switches `numbers`, no more and no less, and the store knows
/// that the host has all up to `barrier`.
std::vector<std::string> CheckNetworks(const HostState& host, const Store& store,
                                       const std::set<uint32_t>& numbers, uint64_t barrier);
/// Ports, their files, VMs and the manager agree about every VIF.  `others`: VIFs on ports that neither a VM
/// nor an interface of the host accounts for.  With `files_written` no file keeps a VIF that its port has
/// lost; where disks were full one may.
std::vector<std::string> CheckAllVifs(VirtualMachines& machines, Manager& manager, const HostState& host,
                                      const std::set<std::string>& others = {}, bool files_written = true);
/// Each interface of the host that is on a port has its VIF there, and those that `config` moves are where it
/// says.
std::vector<std::string> CheckInterfaces(const HostState& host,
                                         const orlane::zem::switching::HostConfigMsg& config);
/// A VIF is on a port of the host's own whenever the manager has it there, and nothing is owed.
std::vector<std::string> CheckSecurityPort(Manager& manager, const std::string& dvs, const std::string& port,
                                           const std::string& vif);
/// Every switch shows `state` as the health of the agent.
std::vector<std::string> CheckHealth(const SwitchState& switches, const std::string& state);
/// No peer was treated against its rules, and nobody waits for an answer of the agent.
std::vector<std::string> CheckManners(const SwitchState& switches, const HostManagement& management);

}  // namespace zem::sim
