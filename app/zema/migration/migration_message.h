#pragma once

#include <map>
#include <string>
#include <vector>

namespace orlane::zem::switching {
class HostConfigMsg;
class HostSwitchMsg;
class QubMgmtIfToLogicSwitchMsg;
class QubMgmtIfToPlnMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

class ErrorSink;

/// What moves into or out of one host switch.  The entries are those of the message, which must live as long
/// and keep its lists.
struct KnlMigration {
  /// Where physical NICs go when no interface goes with them; empty otherwise.
  std::string target;
  /// The address to ping after the move; empty when nobody said one.
  std::string ping_ip;
  std::vector<orlane::zem::switching::QubMgmtIfToPlnMsg*> to_pln;
  std::vector<orlane::zem::switching::QubMgmtIfToLogicSwitchMsg*> to_logical_switch;
};

/// By the id of the host switch, in the host's form.
using KnlMigrationMap = std::map<std::string, KnlMigration>;

/// Brings the ids of the host switches, in the list and in the migration, into the host's form, refuses a
/// migration that cannot be meant, gives endpoints that move their VLAN, and fills `map`.  False with the
/// text in `errors`; the message's ids may be converted then, nothing else has changed.
[[nodiscard]] bool ConvertDvsUuidsAndPopulateKnlMigrationMap(orlane::zem::switching::HostConfigMsg* config,
                                                             KnlMigrationMap* map, ErrorSink& errors);

/// The rules that the message alone decides, and the VLAN of endpoints.  Part of the operation above.
[[nodiscard]] bool ValidateKnlMigrateMsgAndSetVtepVlan(orlane::zem::switching::HostConfigMsg* config,
                                                       ErrorSink& errors);

/// Whether there is nothing to move for this agent: no migration at all, or one of ports that only security
/// looks at, which stay where they are.
bool IsSecurityOnlyMigration(const orlane::zem::switching::HostConfigMsg& config);

/// An entry that names a switch and nothing else: its physical NICs move without any interface.
bool IsPnicsAlone(const orlane::zem::switching::QubMgmtIfToLogicSwitchMsg& entry);

/// The host switch of the message that has this id; null when there is none.
orlane::zem::switching::HostSwitchMsg* FindHostSwitch(orlane::zem::switching::HostConfigMsg* config,
                                                      const std::string& id);

}  // namespace zem::zema
