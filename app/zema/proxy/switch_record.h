#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/zema/proxy/lum_reply.h"

namespace orlane::zem::switching {
class HostConfigMsg;
class HostSwitchMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

/// `pnic~uplink` pairs by switch id: the physical NICs of a switch whose interfaces migrate are attached by
/// the migration and not by the switch's record.
using MigratedPnics = std::map<std::string, std::vector<std::string>>;

/// "KLN" or "NVS".
std::string_view SwitchKind(const orlane::zem::switching::HostSwitchMsg& host_switch);

/// Builds the record with which the host creates or changes a switch.  When `migrated` has the switch, the
/// pairs of its physical NICs are put there.  Returns nothing and sets `error` when a value contains a
/// separator of the record, which would shift everything after it; `migrated` is then unchanged.
std::optional<std::string> BuildSwitchRecord(const orlane::zem::switching::HostSwitchMsg& host_switch,
                                             MigratedPnics* migrated, std::string* error);

/// Builds the records of all switches of the message; there are none while the message is in its first phase.
/// Returns nothing when a record cannot be built.
std::optional<std::vector<std::string>> BuildSwitchRecords(
    const orlane::zem::switching::HostConfigMsg& config, MigratedPnics* migrated, std::string* error);

/// The command that applies all of `records`.
std::string ApplyDvsesCommand(const std::vector<std::string>& records);

/// Maps transport zones to the switches that realize them, in the message's order.
std::vector<TzDvs> TzToDvsOf(const orlane::zem::switching::HostConfigMsg& config);

/// Returns false and sets `error` when `value` contains one of `separators`; `field` is its name in the
/// error.
[[nodiscard]] bool FreeOfSeparators(std::string_view field, std::string_view value,
                                    std::string_view separators, std::string* error);

}  // namespace zem::zema
