#pragma once

#include <optional>
#include <string>
#include <vector>

namespace orlane::zem::switching {
class HostSwitchMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

/// Whether the switch's endpoints need a host that supports IPv6 endpoints.
bool NeedsIpv6Endpoints(const orlane::zem::switching::HostSwitchMsg& host_switch);

/// Builds the command that makes the switch's endpoints on the host match the message.  `migrated` are the
/// devices that have just become endpoints by migration.  Returns nothing and sets `error` when a value
/// contains a separator of the command.
std::optional<std::string> BuildApplyVtep(const orlane::zem::switching::HostSwitchMsg& host_switch,
                                          const std::vector<std::string>& migrated, bool upgrade,
                                          std::string* error);

}  // namespace zem::zema
