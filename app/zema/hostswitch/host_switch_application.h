#pragma once

#include <functional>
#include <string>
#include <vector>

#include "app/zema/endpoint/vtep_application.h"
#include "app/zema/migration/migration_message.h"
#include "app/zema/proxy/lum_reply.h"
#include "app/zema/proxy/switch_record.h"
#include "framework/tasks/outcome.h"

namespace zem::zema {

class ErrorSink;
class HighPerformanceProfile;
class InterfaceMigration;
class LumCommands;
class TepHaLibrary;
struct SwitchTeaming;

/// What the application of switches needs from the rest of the agent.  All fields must be set.
struct HostSwitchApplicationSettings {
  /// `hostConfig.hostSwitchModeStandardRealization`.
  std::string mode_standard_realization;
  bool upgrade = false;
  /// Stores which switch realizes which transport zone.
  std::function<void(std::vector<TzDvs>)> set_tz_to_dvs_cache;
  /// Applies a switch's teaming and its named teamings.
  std::function<Outcome(const std::string& dvs, const SwitchTeaming& teaming)> configure_teaming;
  std::function<Outcome(const std::string& dvs, const std::vector<SwitchTeaming>& teamings)>
      configure_named_teaming;
  EndpointIdOf endpoint_id_of;
  /// Called with false just before the switches change, and with true on every way out.
  std::function<void(bool)> allow_resync;
  /// Called when some switch has high performance settings.
  std::function<void()> schedule_high_performance;
};

/// Makes the host's switches match a configuration: first the switches themselves, then for each its mode,
/// the interfaces that move into it, its endpoints and their settings.  The failure of one switch does not
/// keep the others from being configured.
///
/// Threads: one, which is not a provider's: each step waits for the host.
/// Ownership: holds all arguments by reference.
class HostSwitchApplication {
 public:
  using Config = orlane::zem::switching::HostConfigMsg;
  using HostSwitch = orlane::zem::switching::HostSwitchMsg;

  HostSwitchApplication(LumCommands& lum, ErrorSink& errors, InterfaceMigration& migration,
                        TepHaLibrary& tep_ha, HighPerformanceProfile& high_performance,
                        HostSwitchApplicationSettings settings);

  /// `records` are those of `config`; `migrated` holds the physical NICs that the records leave to the
  /// migration. Returns false when any step failed; the texts are then in the errors.
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
