#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/zema/migration/migration_message.h"

namespace zem::zema {

/// The command for a move out of a switch, except for what is added when it runs.
struct MigrateToPlnParts {
  /// Names of the uplinks that keep their physical NICs.
  std::string pnics_to_set;
  /// Each option follows a "|".
  std::string options;
  /// Each entry follows a "|".
  std::string entries;

  std::string Command(const std::string& switch_id, const std::string& op_id, int ping_tries) const;
};

/// Returns nothing and sets `error` when a value contains a separator of the command.  `host_switch` is null
/// when the configuration no longer has the switch: then no physical NIC stays on it.
std::optional<MigrateToPlnParts> BuildMigrateToPln(const orlane::zem::switching::HostSwitchMsg* host_switch,
                                                   const KnlMigration& migration, std::string* error);

/// The command for a move into a switch, except for what is added when it runs.
struct MigrateToLsParts {
  /// "pnic,uplink" pairs.
  std::string pnics;
  std::string ping_ip;
  /// Each entry follows a "|".
  std::string entries;

  std::string Command(const std::string& switch_id, const std::string& op_id, int ping_tries) const;
};

/// `pairs` have the form "pnic~uplink".
std::optional<MigrateToLsParts> BuildMigrateToLs(const KnlMigration& migration,
                                                 const std::vector<std::string>& pairs, std::string* error);

/// The host's report of a failed move into a switch.
struct MigrateToLsFailure {
  std::vector<std::string> vteps;
  std::string error;
  bool operator==(const MigrateToLsFailure&) const = default;
};

/// Parses 13 characters of which only the number matters, the endpoints that did not move, separated by
/// commas, "|" and the reason.  A reply of another form is the reason itself.
MigrateToLsFailure ParseMigrateToLsFailure(std::string_view reply);

}  // namespace zem::zema
