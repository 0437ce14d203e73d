#pragma once

#include <optional>
#include <string>
#include <vector>

namespace orlane::zem::switching {
class HostSwitchMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

/// Whether the switch's endpoints need a host that knows IPv6 ones.
bool NeedsIpv6Endpoints(const orlane::zem::switching::HostSwitchMsg& host_switch);

/// The command by which the host makes the switch's endpoints those of the message.  `migrated` are the
/// devices that have just become endpoints by migration.  Nothing, and the reason in `error`, when a value
/// holds a separator of the command.
std::optional<std::string> BuildApplyVtep(const orlane::zem::switching::HostSwitchMsg& host_switch,
                                          const std::vector<std::string>& migrated, bool upgrade,
                                          std::string* error);

}  // namespace zem::zema
