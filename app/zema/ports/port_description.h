#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zem::zema {

/// The description of a port to create.
struct PortConfigSpec {
  /// The logical port's uuid, which is the port's key.
  std::string port_id;
  std::string zone_id;
  /// The id of the logical switch.
  std::string switch_id;
  std::map<std::string, std::string> extra_configs;
  /// The initial state: "UNBLOCKED_VLAN", "PENDING_CONF", another word, or empty.
  std::string init_state;
  /// The VLAN id, or -1 for none.
  int32_t vlan = -1;
  /// First and last VLAN of each range.  The ranges apply when `vlan` names no VLAN.
  std::vector<std::pair<uint32_t, uint32_t>> vlan_ranges;
  /// The name of one of the switch's named teamings, or empty.
  std::string uplink_teaming;
  std::string org;
  std::string project;
  std::string vpc;
};

}  // namespace zem::zema
