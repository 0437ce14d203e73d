#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/zema/migration/migration_message.h"

namespace zem::zema {

class ErrorSink;
class LumCommands;

/// A kernel interface, as reported by the host.
struct HostKnl {
  std::string device;
  std::string vif;
  std::string logical_port;
  /// The host switch of the interface; empty while it is in one of the host's own switches.
  std::string host_switch;
  /// The host's term for its use, for example "management".
  std::string type;
  /// The physical NIC whose MAC address it shares; empty when it has its own.
  std::string mac_of;
  /// The teaming named by its port; empty when it uses the switch's teaming.
  std::string teaming;
  bool operator==(const HostKnl&) const = default;
};

/// Parses "ok|device~vif~port~switch~type~mac~teaming|..."; "ok" alone is an empty list.  Returns nothing
/// when the reply has another form.
std::optional<std::vector<HostKnl>> ParseKnls(std::string_view reply);

/// Reads the host's interfaces in logical switches and those of the given types.  Returns nothing, with the
/// reason, when the host does not report them.
std::optional<std::vector<HostKnl>> ReadKnls(LumCommands& lum, const std::string& types,
                                             std::string* problem);

/// Reads the host's interfaces, as above, and refuses a migration that would change an interface's identity
/// or leave it without a physical NIC.  The entries get the VIF and the port that their interface has now.
///
/// Threads: one, which is not a provider's: waits for the host.
[[nodiscard]] bool ValidateKnls(LumCommands& lum, const std::string& types,
                                orlane::zem::switching::HostConfigMsg* config, ErrorSink& errors);

/// Applies the rules to the interfaces that the host reported; part of the operation above.
[[nodiscard]] bool ValidateInterfaces(const std::vector<HostKnl>& knls,
                                      orlane::zem::switching::HostConfigMsg* config, ErrorSink& errors);
[[nodiscard]] bool ValidateTeaming(const std::vector<HostKnl>& knls, const std::string& types,
                                   const orlane::zem::switching::HostConfigMsg& config, ErrorSink& errors);

}  // namespace zem::zema
