#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/zema/migration/migration_message.h"
#include "app/zema/proxy/switch_record.h"

namespace zem::zema {

class ErrorSink;
struct HostKnl;
class LumCommands;
class MigrationRecord;

struct InterfaceMigrationSettings {
  /// Words of the host, by commas (`hostConfig.knlTypesToCheckOnRemovingPnic`).
  std::string knl_types = "management";
  /// How often the host pings after a move before it takes it back (`lum.knlPingTryTimes`).
  int knl_ping_try_times = 4;
  /// Told before and, when it failed, after the host's clean-up for its own removal of the agent.
  std::function<void(bool)> set_del_zem_running = [](bool) {};
  std::function<void()> flush_desired_config = [] {};
  /// Makes the port that `entry` names on the switch of `zone`; false with the reason in `error`.
  std::function<bool(const orlane::zem::switching::QubMgmtIfToLogicSwitchMsg& entry, const std::string& zone,
                     std::string* error)>
      create_port;
  /// Takes the entry's VIF off the port that it names, on the switch of `zone`.
  std::function<bool(const orlane::zem::switching::QubMgmtIfToLogicSwitchMsg& entry, const std::string& zone,
                     std::string* error)>
      leave_port = [](const orlane::zem::switching::QubMgmtIfToLogicSwitchMsg&, const std::string&,
                      std::string*) { return true; };
  /// Told before the host is asked to move the interfaces with these VIFs out: once they have moved, its list
  /// of interfaces does not name the VIFs any more.
  std::function<void(const std::vector<std::string>& vifs)> leaving = [](const std::vector<std::string>&) {};
  /// What an earlier process was told by `leaving`, and may not have cleared.
  std::vector<std::string> left_before;
  /// Takes the VIF off every port but `kept`.
  std::function<bool(const std::string& vif, const std::string& kept, std::string* error)> leave_ports =
      [](const std::string&, const std::string&, std::string*) { return true; };
};

/// Moves the host's kernel interfaces, vNICs and physical NICs between its own switches and the host
/// switches. An operation that fails has told it in the errors, and changes nothing that comes after it.
///
/// Threads: one, which is not a provider's: each operation waits for the host.
/// Ownership: holds all by reference.
class InterfaceMigration {
 public:
  using Config = orlane::zem::switching::HostConfigMsg;
  using HostSwitch = orlane::zem::switching::HostSwitchMsg;

  InterfaceMigration(LumCommands& lum, ErrorSink& errors, MigrationRecord& record,
                     InterfaceMigrationSettings settings);

  /// Whether the host can do without the agent, when the host itself asks for its removal (`reset`).
  [[nodiscard]] bool ValidateHostConfigMsgForMigration(bool reset);

  /// The checks that need the host, the moves out, and with `reset` whatever else keeps the host from losing
  /// its switches.  `migrate_nvs_knls` becomes whether there are moves in; when the host's profile has made
  /// them (it came false), `map` loses them.
  [[nodiscard]] bool PrepareAndMigrate(Config* config, KnlMigrationMap* map, bool* migrate_nvs_knls,
                                       bool reset);

  /// The moves out of all switches; ends at the first that fails.
  [[nodiscard]] bool MigrateToPLN(const Config& config, const KnlMigrationMap& map);

  /// The moves into `host_switch`, whose kind is `kind`, with its ports made before.  `pairs` are its
  /// physical NICs, "pnic~uplink".  `migrated_vteps` are the devices that have become endpoints.  What did
  /// not become one is taken out of `host_switch`.
  [[nodiscard]] bool MigrateToLogicalSwitch(HostSwitch* host_switch, std::string_view kind,
                                            const KnlMigration& migration,
                                            const std::vector<std::string>& pairs,
                                            std::vector<std::string>* migrated_vteps);

 private:
  using ToLogicalSwitch = orlane::zem::switching::QubMgmtIfToLogicSwitchMsg;

  bool MigrateOut(const HostSwitch* host_switch, const std::string& id, const KnlMigration& migration);
  /// The VIF is nowhere but on the port `kept`, or nowhere; a failure is logged.
  void LeavePorts(const std::string& vif, const std::string& kept);
  /// `made` are those for which a port was made, or half of one.
  bool CreatePorts(const HostSwitch& host_switch, const KnlMigration& migration,
                   std::vector<ToLogicalSwitch*>* made);
  /// After a move that failed, or of which nobody knows: the ports lose the VIFs that the host does not have.
  void TakeBackPorts(const HostSwitch& host_switch, const std::vector<ToLogicalSwitch*>& made);
  /// After a move out that failed, or of which nobody knows: the VIFs that the host does not have any more.
  void LeaveWhatMoved(const std::vector<std::string>& of_interfaces,
                      const std::vector<std::string>& of_vnics);
  /// The host's interfaces behind a failed move; nothing when it does not say.
  std::optional<std::vector<HostKnl>> AskForKnls();
  /// The host knows the VIF of no VM.
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

/// The switches of `map`, for the records of which the physical NICs go with the migration.
MigratedPnics MigratedPnicsOf(const KnlMigrationMap& map);

}  // namespace zem::zema
