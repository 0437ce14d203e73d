#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orlane::zem::switching {
class HostSwitchMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

/// How traffic is spread over uplinks.
struct SwitchTeaming {
  /// The teaming's name; empty for the switch's own teaming.
  std::string name;
  /// The policy's number, as the manager sent it.
  uint32_t policy = 0;
  std::vector<std::string> active;
  std::vector<std::string> standby;
  uint32_t rolling_order = 0;
  bool operator==(const SwitchTeaming&) const = default;
};

/// The switch's own teaming.
SwitchTeaming TeamingOf(const orlane::zem::switching::HostSwitchMsg& host_switch);

/// The teamings that logical ports may name, in the message's order.
std::vector<SwitchTeaming> NamedTeamingsOf(const orlane::zem::switching::HostSwitchMsg& host_switch);

}  // namespace zem::zema
