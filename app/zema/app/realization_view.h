#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zem::Tarvik {

/// A switch of the host configuration in force.
struct SwitchView {
  std::string id;
  std::string name;
  std::string mode;
  uint32_t mtu = 0;
  std::vector<std::string> uplinks;  ///< physical NICs
  std::vector<std::string> endpoints;
};

/// What operators see of the host configuration in force.
struct SwitchesView {
  std::string config_id;
  std::string revision;
  bool known = false;  ///< a configuration was applied or restored since the start
  std::vector<SwitchView> switches;
};

/// A port and the VIF that the agent knows on it.
struct PortView {
  std::string vif;
  std::string host_switch;
  std::string port;
};

/// The ports of VIFs, as far as the index knows them.
struct PortsView {
  bool known = false;  ///< false while only a reading of all ports can tell
  size_t total = 0;
  std::vector<PortView> ports;
};

}  // namespace zem::Tarvik
