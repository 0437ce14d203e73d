#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/zema/migration/migration_message.h"
#include "app/zema/proxy/switch_record.h"
#include "framework/tasks/outcome.h"

namespace zem::zema {

class ErrorSink;
struct HostKnl;
class LumCommands;
class MigrationRecord;

struct InterfaceMigrationSettings {
  /// Types in the host's terms, separated by commas (`hostConfig.knlTypesToCheckOnRemovingPnic`).
  std::string knl_types = "management";
  /// How often the host pings after a move before it reverts the move (`lum.knlPingTryTimes`).
  int knl_ping_try_times = 4;
  /// Called with true before the host's clean-up for its own removal of the agent, and with false when it
  /// failed.
  std::function<void(bool)> set_del_zem_running = [](bool) {};
  std::function<void()> flush_desired_config = [] {};
  /// Creates the port that `entry` names on the switch of `zone`.
  std::function<Outcome(const orlane::zem::switching::QubMgmtIfToLogicSwitchMsg& entry,
                        const std::string& zone)>
      create_port;
  /// Removes the entry's VIF from the port that it names, on the switch of `zone`.
  std::function<Outcome(const orlane::zem::switching::QubMgmtIfToLogicSwitchMsg& entry,
                        const std::string& zone)>
      leave_port = [](const orlane::zem::switching::QubMgmtIfToLogicSwitchMsg&, const std::string&) {
        return Outcome::Done();
      };
  /// Called, before the host is asked to move them out, with the VIFs of the interfaces: afterwards the
  /// host's list of interfaces no longer contains these VIFs.
  std::function<void(const std::vector<std::string>& vifs)> leaving = [](const std::vector<std::string>&) {};
  /// VIFs passed to `leaving` in an earlier process, which may not have removed them from their ports.
  std::vector<std::string> left_before;
  /// Removes the VIF from every port but `kept`.
  std::function<Outcome(const std::string& vif, const std::string& kept)> leave_ports =
      [](const std::string&, const std::string&) { return Outcome::Done(); };
};

/// Moves the host's kernel interfaces, vNICs and physical NICs between its own switches and the host
/// switches. An operation that fails adds its error to the errors and does not affect later operations.
///
/// Threads: one, which is not a provider's: each operation waits for the host.
/// Ownership: holds all arguments by reference.
class InterfaceMigration {
 public:
  using Config = orlane::zem::switching::HostConfigMsg;
  using HostSwitch = orlane::zem::switching::HostSwitchMsg;

  InterfaceMigration(LumCommands& lum, ErrorSink& errors, MigrationRecord& record,
                     InterfaceMigrationSettings settings);

  /// Checks whether the host can work without the agent, when the host itself asks for its removal (`reset`).
  [[nodiscard]] bool ValidateHostConfigMsgForMigration(bool reset);

  /// Makes the checks that need the host and the moves out, and with `reset` handles whatever else keeps the
  /// host from removing its switches.  Sets `migrate_nvs_knls` to whether there are moves in; when it was
  /// false, the host's profile has made those moves, and `map` loses them.
  [[nodiscard]] bool PrepareAndMigrate(Config* config, KnlMigrationMap* map, bool* migrate_nvs_knls,
                                       bool reset);

  /// Moves interfaces out of all switches; stops at the first failure.
  [[nodiscard]] bool MigrateToPLN(const Config& config, const KnlMigrationMap& map);

  /// Makes the moves into `host_switch`, whose kind is `kind`, after creating the ports.  `pairs` are the
  /// switch's physical NICs, "pnic~uplink".  `migrated_vteps` gets the devices that have become endpoints;
  /// endpoints that did not move are removed from `host_switch`.
  [[nodiscard]] bool MigrateToLogicalSwitch(HostSwitch* host_switch, std::string_view kind,
                                            const KnlMigration& migration,
                                            const std::vector<std::string>& pairs,
                                            std::vector<std::string>* migrated_vteps);

 private:
  using ToLogicalSwitch = orlane::zem::switching::QubMgmtIfToLogicSwitchMsg;

  bool MigrateOut(const HostSwitch* host_switch, const std::string& id, const KnlMigration& migration);
  /// Removes the VIF from every port but `kept`; a failure is logged.
  void LeavePorts(const std::string& vif, const std::string& kept);
  /// `made` gets the entries for which a port was created, at least in part.
  bool CreatePorts(const HostSwitch& host_switch, const KnlMigration& migration,
                   std::vector<ToLogicalSwitch*>* made);
  /// Called when a move failed or was not answered: removes from the ports the VIFs that the host does not
  /// have there.
  void TakeBackPorts(const HostSwitch& host_switch, const std::vector<ToLogicalSwitch*>& made);
  /// Called when a move out failed or was not answered: removes from their ports the VIFs that the host no
  /// longer has.
  void LeaveWhatMoved(const std::vector<std::string>& of_interfaces,
                      const std::vector<std::string>& of_vnics);
  /// Reads the host's interfaces after a failed move; returns nothing when the host does not answer.
  std::optional<std::vector<HostKnl>> AskForKnls();
  /// Whether the host answers that no VM has the VIF.
  bool IsOfNoVm(const std::string& vif, const std::string& port);
  void TakeMigrated(const std::string& reply, const std::string& id, const KnlMigration& migration);
  bool TakeFailure(const std::string& reply, const std::vector<std::string>& vteps, HostSwitch* host_switch);
  bool MigrateResourcesForDelZem();
  bool Refuse(const char* tag, const std::string& text);

  LumCommands& lum_;
  ErrorSink& errors_;
  MigrationRecord& record_;
  const InterfaceMigrationSettings settings_;
};

/// The switches of `map`, whose records leave their physical NICs to the migration.
MigratedPnics MigratedPnicsOf(const KnlMigrationMap& map);

}  // namespace zem::zema
