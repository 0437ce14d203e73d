#pragma once

#include <string>
#include <vector>

#include "sim/control/json.h"

namespace orlane::zem::switching {
class HostConfigMsg;
}

namespace zem::sim {

/// A switch of the host.
struct HostSwitchState {
  std::string id;
  std::string name;
  std::string kind;
  int64_t mtu = 0;
  std::vector<std::string> zones;
  /// Entries of the form "pnic~uplink".
  std::vector<std::string> pnics;
  /// Device names.
  std::vector<std::string> endpoints;
  /// The digits of the router's MAC address; empty: no router.
  std::string router;
  bool operator==(const HostSwitchState&) const = default;
};

/// Reads the switches from the host's tree.
std::vector<HostSwitchState> ReadHostSwitches();

/// The switches of a host that has realized `config`.
std::vector<HostSwitchState> WantedHostSwitches(const orlane::zem::switching::HostConfigMsg& config);

/// One line for each difference: what the host lacks, or has in excess, compared with `config`.
std::vector<std::string> DiffHost(const orlane::zem::switching::HostConfigMsg& config,
                                  const std::string& host_node_id);

}  // namespace zem::sim
