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

/// Checks of what must be true of a node at quiet.  Each returns one line for every violation, or nothing.
///
/// The host is what `config` says.
std::vector<std::string> CheckHost(const HostState& host,
                                   const orlane::zem::switching::HostConfigMsg& config);
/// The host's networks are the store's logical switches `numbers`, no more and no less, and the store knows
/// that the host has all up to `barrier`.
std::vector<std::string> CheckNetworks(const HostState& host, const Store& store,
                                       const std::set<uint32_t>& numbers, uint64_t barrier);
/// Ports, their files, VMs and the manager agree about every VIF.  `others`: VIFs on ports that belong
/// neither to a VM nor to an interface of the host.  With `files_written`, no file keeps a VIF that its port
/// has lost; after a full disk, one may.
std::vector<std::string> CheckAllVifs(VirtualMachines& machines, Manager& manager, const HostState& host,
                                      const std::set<std::string>& others = {}, bool files_written = true);
/// Each interface of the host that is on a port has its VIF there, and those that `config` moves are at their
/// destination.
std::vector<std::string> CheckInterfaces(const HostState& host,
                                         const orlane::zem::switching::HostConfigMsg& config);
/// A VIF is on a port of the host's own exactly when the manager has it there, and no report to the manager
/// is pending.
std::vector<std::string> CheckSecurityPort(Manager& manager, const std::string& dvs, const std::string& port,
                                           const std::string& vif);
/// Every switch shows `state` as the agent's health.
std::vector<std::string> CheckHealth(const SwitchState& switches, const std::string& state);
/// No rule of a peer's interface was broken, and no request to the agent is unanswered.
std::vector<std::string> CheckManners(const SwitchState& switches, const HostManagement& management);

}  // namespace zem::sim
