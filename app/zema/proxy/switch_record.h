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

/// `pnic~uplink` pairs by the id of the switch: those of a switch whose interfaces migrate go with the
/// migration, not with the switch.
using MigratedPnics = std::map<std::string, std::vector<std::string>>;

/// "KLN" or "NVS".
std::string_view SwitchKind(const orlane::zem::switching::HostSwitchMsg& host_switch);

/// The record by which the host makes or changes a switch.  When `migrated` has the switch, the pairs of its
/// physical NICs are put there.  Nothing, and the reason in `error`, when a value holds a separator of the
/// record, which would shift all that follows; `migrated` is then untouched.
std::optional<std::string> BuildSwitchRecord(const orlane::zem::switching::HostSwitchMsg& host_switch,
                                             MigratedPnics* migrated, std::string* error);

/// The records of all switches of the message, none while it is in its first phase; nothing when one cannot
/// be built.
std::optional<std::vector<std::string>> BuildSwitchRecords(
    const orlane::zem::switching::HostConfigMsg& config, MigratedPnics* migrated, std::string* error);

/// The command over all of `records`.
std::string ApplyDvsesCommand(const std::vector<std::string>& records);

/// Which switch realizes which transport zone, in the message's order.
std::vector<TzDvs> TzToDvsOf(const orlane::zem::switching::HostConfigMsg& config);

/// False, and the reason in `error`, when `value` holds one of `separators`; `field` names it there.
[[nodiscard]] bool FreeOfSeparators(std::string_view field, std::string_view value,
                                    std::string_view separators, std::string* error);

}  // namespace zem::zema
