#pragma once

#include <string>
#include <vector>

#include "sim/control/json.h"

namespace orlane::zem::switching {
class HostConfigMsg;
}

namespace zem::sim {

/// A switch as the host has it.
struct HostSwitchState {
  std::string id;
  std::string name;
  std::string kind;
  int64_t mtu = 0;
  std::vector<std::string> zones;
  /// "pnic~uplink".
  std::vector<std::string> pnics;
  /// Devices.
  std::vector<std::string> endpoints;
  /// The digits of the router's MAC address; empty without router.
  std::string router;
  bool operator==(const HostSwitchState&) const = default;
};

/// What is in the tree of the host's switches.
std::vector<HostSwitchState> ReadHostSwitches();

/// What a host that has realized `config` has.
std::vector<HostSwitchState> WantedHostSwitches(const orlane::zem::switching::HostConfigMsg& config);

/// A line for each thing that the host lacks, or has too much, against `config`; none: they agree.
std::vector<std::string> DiffHost(const orlane::zem::switching::HostConfigMsg& config,
                                  const std::string& host_node_id);

}  // namespace zem::sim
