#pragma once

#include <functional>
#include <string>
#include <vector>

#include "app/zema/endpoint/vtep_application.h"
#include "app/zema/migration/migration_message.h"
#include "app/zema/proxy/lum_reply.h"
#include "app/zema/proxy/switch_record.h"

namespace zem::zema {

class ErrorSink;
class HighPerformanceProfile;
class InterfaceMigration;
class LumCommands;
class TepHaLibrary;
struct SwitchTeaming;

/// What the application of switches needs of the rest of the agent.  All must be set.
struct HostSwitchApplicationSettings {
  /// `hostConfig.hostSwitchModeStandardRealization`.
  std::string mode_standard_realization;
  bool upgrade = false;
  /// Installs which switch realizes which transport zone.
  std::function<void(std::vector<TzDvs>)> set_tz_to_dvs_cache;
  /// Puts a switch's teaming and its named teamings onto it; false with the reason in `error`.
  std::function<bool(const std::string& dvs, const SwitchTeaming& teaming, std::string* error)>
      configure_teaming;
  std::function<bool(const std::string& dvs, const std::vector<SwitchTeaming>& teamings, std::string* error)>
      configure_named_teaming;
  EndpointIdOf endpoint_id_of;
  /// False just before the switches change, true on every way out.
  std::function<void(bool)> allow_resync;
  /// Some switch has high performance settings.
  std::function<void()> schedule_high_performance;
};

/// Makes the host's switches those of a configuration: the switches themselves, then for each its mode, the
/// interfaces that move into it, its endpoints and their settings.  A switch that fails does not keep the
/// others from being done.
///
/// Threads: one, which is not a provider's: each step waits for the host.
/// Ownership: holds all by reference.
class HostSwitchApplication {
 public:
  using Config = orlane::zem::switching::HostConfigMsg;
  using HostSwitch = orlane::zem::switching::HostSwitchMsg;

  HostSwitchApplication(LumCommands& lum, ErrorSink& errors, InterfaceMigration& migration,
                        TepHaLibrary& tep_ha, HighPerformanceProfile& high_performance,
                        HostSwitchApplicationSettings settings);

  /// `records` are those of `config`; `migrated` has the physical NICs that they left to the migration.
  /// False when anything failed; the texts are in the errors then.
  [[nodiscard]] bool InvokeApplyHostSwitch(const std::vector<std::string>& records, Config* config,
                                           const KnlMigrationMap& map, const MigratedPnics& migrated,
                                           VtepOutcome& outcome);

 private:
  bool ConfigureVSTeaming(const Config& config);
  bool ApplyOne(HostSwitch* host_switch, const KnlMigrationMap& map, const MigratedPnics& migrated,
                VtepOutcome& outcome);
  bool ApplyHighPerformance(const HostSwitch& host_switch);

  LumCommands& lum_;
  ErrorSink& errors_;
  InterfaceMigration& migration_;
  TepHaLibrary& tep_ha_;
  HighPerformanceProfile& high_performance_;
  const HostSwitchApplicationSettings settings_;
};

}  // namespace zem::zema
