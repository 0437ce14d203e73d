#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/zema/migration/migration_message.h"

namespace zem::zema {

class ErrorSink;
class LumCommands;

/// A kernel interface of the host, as the host tells it.
struct HostKnl {
  std::string device;
  std::string vif;
  std::string logical_port;
  /// The host switch that it is in; empty while it is in a switch of the host's own.
  std::string host_switch;
  /// The host's word for its use: "management".
  std::string type;
  /// The physical NIC whose MAC address it shares; empty when it has its own.
  std::string mac_of;
  /// The teaming that its port names; empty for the switch's own.
  std::string teaming;
  bool operator==(const HostKnl&) const = default;
};

/// The interfaces of "ok|device~vif~port~switch~type~mac~teaming|..."; "ok" alone is an empty list.  Nothing
/// when the reply has another form.
std::optional<std::vector<HostKnl>> ParseKnls(std::string_view reply);

/// Asks the host for its interfaces in logical switches and those of the given types.  Nothing, with the
/// reason, when it does not say.
std::optional<std::vector<HostKnl>> ReadKnls(LumCommands& lum, const std::string& types,
                                             std::string* problem);

/// Asks the host for its interfaces, as above, and refuses a migration
/// that would change an interface's identity or leave it without a physical NIC.  On the way the entries get
/// the VIF and the port that their interface has now.
///
/// Threads: one, which is not a provider's: waits for the host.
[[nodiscard]] bool ValidateKnls(LumCommands& lum, const std::string& types,
                                orlane::zem::switching::HostConfigMsg* config, ErrorSink& errors);

/// The rules over what the host said; parts of the operation above.
[[nodiscard]] bool ValidateInterfaces(const std::vector<HostKnl>& knls,
                                      orlane::zem::switching::HostConfigMsg* config, ErrorSink& errors);
[[nodiscard]] bool ValidateTeaming(const std::vector<HostKnl>& knls, const std::string& types,
                                   const orlane::zem::switching::HostConfigMsg& config, ErrorSink& errors);

}  // namespace zem::zema
