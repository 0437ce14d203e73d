#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/zema/migration/migration_message.h"

namespace zem::zema {

/// The move out of a switch, apart from what its run adds.
struct MigrateToPlnParts {
  /// Names of the uplinks that keep their physical NICs.
  std::string pnics_to_set;
  /// Each option behind a "|".
  std::string options;
  /// Each entry behind a "|".
  std::string entries;

  std::string Command(const std::string& switch_id, const std::string& op_id, int ping_tries) const;
};

/// Nothing, and the reason in `error`, when a value holds a separator of the command.  `host_switch` is null
/// when the configuration has the switch no more: then nothing stays on it.
std::optional<MigrateToPlnParts> BuildMigrateToPln(const orlane::zem::switching::HostSwitchMsg* host_switch,
                                                   const KnlMigration& migration, std::string* error);

/// The move into a switch, apart from what its run adds.
struct MigrateToLsParts {
  /// "pnic,uplink" pairs.
  std::string pnics;
  std::string ping_ip;
  /// Each entry behind a "|".
  std::string entries;

  std::string Command(const std::string& switch_id, const std::string& op_id, int ping_tries) const;
};

/// `pairs` as "pnic~uplink".
std::optional<MigrateToLsParts> BuildMigrateToLs(const KnlMigration& migration,
                                                 const std::vector<std::string>& pairs, std::string* error);

/// A move into a switch that did not succeed.
struct MigrateToLsFailure {
  std::vector<std::string> vteps;
  std::string error;
  bool operator==(const MigrateToLsFailure&) const = default;
};

/// Reads 13 characters that only count, the endpoints that did not move by commas, "|" and the reason.  A
/// reply of another form is the reason itself.
MigrateToLsFailure ParseMigrateToLsFailure(std::string_view reply);

}  // namespace zem::zema
