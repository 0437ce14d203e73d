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

/// The moves into or out of one host switch.  The entries point into the message, which must outlive them
/// with its lists unchanged.
struct KnlMigration {
  /// The target of physical NICs that move without an interface; empty otherwise.
  std::string target;
  /// The address to ping after the move; empty when none was specified.
  std::string ping_ip;
  std::vector<orlane::zem::switching::QubMgmtIfToPlnMsg*> to_pln;
  std::vector<orlane::zem::switching::QubMgmtIfToLogicSwitchMsg*> to_logical_switch;
};

/// By the id of the host switch, in the host's form.
using KnlMigrationMap = std::map<std::string, KnlMigration>;

/// Converts the ids of the host switches, in the list and in the migration, to the host's form, refuses a
/// migration that makes no sense, sets the VLAN of endpoints that move, and fills `map`.  Returns false with
/// the text in `errors`; the message's ids may then be converted, but nothing else has changed.
[[nodiscard]] bool ConvertDvsUuidsAndPopulateKnlMigrationMap(orlane::zem::switching::HostConfigMsg* config,
                                                             KnlMigrationMap* map, ErrorSink& errors);

/// Checks the rules that need only the message, and sets the VLAN of endpoints.  Part of the operation above.
[[nodiscard]] bool ValidateKnlMigrateMsgAndSetVtepVlan(orlane::zem::switching::HostConfigMsg* config,
                                                       ErrorSink& errors);

/// Returns true when this agent has nothing to move: there is no migration, or one of ports that are used for
/// security alone, which stay where they are.
bool IsSecurityOnlyMigration(const orlane::zem::switching::HostConfigMsg& config);

/// Whether an entry names a switch and nothing else: the switch's physical NICs move without any interface.
bool IsPnicsAlone(const orlane::zem::switching::QubMgmtIfToLogicSwitchMsg& entry);

/// Finds the host switch of the message with this id; null when there is none.
orlane::zem::switching::HostSwitchMsg* FindHostSwitch(orlane::zem::switching::HostConfigMsg* config,
                                                      const std::string& id);

}  // namespace zem::zema
