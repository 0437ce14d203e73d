#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::sim::uplinks {

/// The uplinks of a switch as their ports, and the test of VLANs and MTU that the switch makes on them.
///
/// A port stands for each physical NIC of the switch, or for each uplink's name while it has none.  The other
/// end of the cable carries certain VLANs at a certain MTU; a test compares both with what is asked for.

/// The other end of an uplink's cable.
struct Settings {
  int mtu = 9000;
  /// Ranges such as "1-10,20".
  std::string vlans = "0-4095";
  /// The port's alias; empty: the uplink's name.
  std::string alias;
  /// A result that is wrong: "mtu" or "vlan" is too short, "mtu-count" or "vlan-count" states more than it
  /// holds.
  std::string garble;
};

/// Changes an uplink by its name.  False when there is no such switch or the name cannot be one.
[[nodiscard]] bool Configure(const std::string& dvs, const std::string& uplink, const Settings& settings);
Settings SettingsOf(const std::string& dvs, const std::string& uplink);

/// The value of the property that lists the uplinks' ports.
std::string PortList(const std::string& dvs);
/// A value of an uplink's port: its alias, or a result of the test while one runs and has its results.
/// Nothing for all other ports and properties.
std::optional<std::string> PortValue(const std::string& dvs, const std::string& port,
                                     std::string_view property);

/// A test begins; its results are there after a second.
void BeginCheck(const std::string& dvs);
/// The test ends, and its results go.
void EndCheck(const std::string& dvs);
/// How many milliseconds tests take from now on, on every switch.
void SetCheckTime(int milliseconds);

}  // namespace zem::sim::uplinks
