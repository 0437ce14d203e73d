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

/// The commands that make a host's switches match the manager's configuration.  Each adds its failure to
/// `errors`.
///
/// Threads: one, which is not a provider's: each operation waits for the host.
/// Ownership: holds both arguments by reference.
class HostSwitchCommands {
 public:
  HostSwitchCommands(LumCommands& lum, ErrorSink& errors) : lum_(lum), errors_(errors) {}

  /// Creates or changes the switches of the records.  Without records it sends no command and returns true.
  /// It also returns false when the host has switches for security alone.
  [[nodiscard]] bool ApplyHostSwitches(const std::vector<std::string>& records);

  /// Sets the switch's forwarding mode.  `standard_realization` decides what "standard" means on this host:
  /// "pktHandle", "ens-intr", or, for any other value, what the host's version supports
  /// (`hostConfig.hostSwitchModeStandardRealization`).
  [[nodiscard]] bool ApplyHostSwitchMode(const orlane::zem::switching::HostSwitchMsg& host_switch,
                                         std::string_view standard_realization);

  /// Gives a switch with endpoints a guest lane interface, and removes it from a switch without endpoints.
  [[nodiscard]] bool ApplyGuestLane(const orlane::zem::switching::HostSwitchMsg& host_switch);

  /// Adds the host's own interface to the guest lane.
  [[nodiscard]] bool AddGuestLaneInterface(const std::string& device, const std::string& address,
                                           const std::string& net_mask);

  /// Sends the host its transport node id; an empty `id` means that the host has none any more.
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
