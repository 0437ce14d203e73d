#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orlane::zem::switching {
class HostSwitchMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

class ErrorSink;
class LumCommands;

/// The commands that make a host's switches what the manager wants, each with its outcome in `errors`.
///
/// Threads: one, which is not a provider's: each operation waits for the host.
/// Ownership: holds both by reference.
class HostSwitchCommands {
 public:
  HostSwitchCommands(LumCommands& lum, ErrorSink& errors) : lum_(lum), errors_(errors) {}

  /// Makes or changes the switches of the records; true without any command when there are none, false also
  /// when the host has switches for security alone.
  [[nodiscard]] bool ApplyHostSwitches(const std::vector<std::string>& records);

  /// Sets the switch's way of forwarding.  `standard_realization` decides what "standard" is on this host:
  /// "pktHandle", "ens-intr", or anything else for what the host's version can do
  /// (`hostConfig.hostSwitchModeStandardRealization`).
  [[nodiscard]] bool ApplyHostSwitchMode(const orlane::zem::switching::HostSwitchMsg& host_switch,
                                         std::string_view standard_realization);

  /// A switch with endpoints has a guest lane interface, one without has none.
  [[nodiscard]] bool ApplyGuestLane(const orlane::zem::switching::HostSwitchMsg& host_switch);

  /// The host's own interface to the guest lane.
  [[nodiscard]] bool AddGuestLaneInterface(const std::string& device, const std::string& address,
                                           const std::string& net_mask);

  /// Tells the host its transport node id, empty when it has none any more.
  [[nodiscard]] bool UpdateTnIdToCorvd(const std::string& id);

 private:
  [[nodiscard]] bool ApplyHostSwitch(const std::vector<std::string>& records);
  [[nodiscard]] bool ApplyCpuConfig(const orlane::zem::switching::HostSwitchMsg& host_switch);
  std::string ModeOf(const orlane::zem::switching::HostSwitchMsg& host_switch,
                     std::string_view standard_realization);

  LumCommands& lum_;
  ErrorSink& errors_;
};

}  // namespace zem::zema
