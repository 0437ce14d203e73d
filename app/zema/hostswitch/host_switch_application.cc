#include "app/zema/hostswitch/host_switch_application.h"

#include <algorithm>
#include <utility>

#include "app/zema/hostlib/switch_teaming.h"
#include "app/zema/hostlib/vtep_ha_profile.h"
#include "app/zema/hostswitch/high_performance_profile.h"
#include "app/zema/hostswitch/host_switch_commands.h"
#include "app/zema/migration/interface_migration.h"
#include "app/zema/proxy/error_sink.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

// Keeps port operations from being replayed while the switches change.
class ResyncPause {
 public:
  explicit ResyncPause(const std::function<void(bool)>& allow) : allow_(allow) { allow_(false); }
  ~ResyncPause() { allow_(true); }
  ResyncPause(const ResyncPause&) = delete;
  ResyncPause& operator=(const ResyncPause&) = delete;

 private:
  const std::function<void(bool)>& allow_;
};

}  // namespace

HostSwitchApplication::HostSwitchApplication(LumCommands& lum, ErrorSink& errors,
                                             InterfaceMigration& migration, TepHaLibrary& tep_ha,
                                             HighPerformanceProfile& high_performance,
                                             HostSwitchApplicationSettings settings)
    : lum_(lum),
      errors_(errors),
      migration_(migration),
      tep_ha_(tep_ha),
      high_performance_(high_performance),
      settings_(std::move(settings)) {}

bool HostSwitchApplication::InvokeApplyHostSwitch(const std::vector<std::string>& records, Config* config,
                                                  const KnlMigrationMap& map, const MigratedPnics& migrated,
                                                  VtepOutcome& outcome) {
  bool good = true;
  {
    const ResyncPause pause(settings_.allow_resync);
    if (!HostSwitchCommands(lum_, errors_).ApplyHostSwitches(records)) return false;
    if (records.empty()) return true;
    settings_.set_tz_to_dvs_cache(TzToDvsOf(*config));
    good = ConfigureVSTeaming(*config);
  }
  for (HostSwitchMsg& host_switch : *config->mutable_host_switches()) {
    if (!ApplyOne(&host_switch, map, migrated, outcome)) good = false;
  }
  const auto& switches = config->host_switches();
  if (std::any_of(switches.begin(), switches.end(), [](const HostSwitchMsg& host_switch) {
        return host_switch.profiles().has_high_performance_profile();
      })) {
    settings_.schedule_high_performance();
  }
  return good;
}

bool HostSwitchApplication::ConfigureVSTeaming(const Config& config) {
  bool good = true;
  for (const HostSwitchMsg& host_switch : config.host_switches()) {
    Outcome configured = settings_.configure_teaming(host_switch.id(), TeamingOf(host_switch));
    if (configured) {
      configured = settings_.configure_named_teaming(host_switch.id(), NamedTeamingsOf(host_switch));
    }
    if (configured) continue;
    ZLOG_ERROR("42009", "[%s] %s", __func__, configured.error().c_str());
    errors_.Add(ErrorSink::kGeneral, configured.error());
    good = false;
  }
  return good;
}

bool HostSwitchApplication::ApplyOne(HostSwitch* host_switch, const KnlMigrationMap& map,
                                     const MigratedPnics& migrated, VtepOutcome& outcome) {
  HostSwitchCommands commands(lum_, errors_);
  bool good = commands.ApplyHostSwitchMode(*host_switch, settings_.mode_standard_realization);
  std::vector<std::string> migrated_vteps;
  if (const auto migration = map.find(host_switch->id()); migration != map.end()) {
    const auto pnics = migrated.find(host_switch->id());
    if (!migration_.MigrateToLogicalSwitch(
            host_switch, SwitchKind(*host_switch), migration->second,
            pnics == migrated.end() ? std::vector<std::string>() : pnics->second, &migrated_vteps)) {
      ZLOG_ERROR("42009", "MigrateToLogicalSwitch failed. Skipping to invoke ApplyVTEP() fordvs [%s]",
                 host_switch->id().c_str());
      return false;
    }
  }
  good = VtepApplication(lum_, errors_, settings_.endpoint_id_of, outcome)
             .ApplyVTEP(host_switch, migrated_vteps, settings_.upgrade) &&
         good;
  good = commands.ApplyGuestLane(*host_switch) && good;
  std::string error;
  if (!ProcessVtepHAProfile(tep_ha_, *host_switch, &error)) {
    ZLOG_ERROR("42077", "[%s] Failed sending the VTEP_HA Params to DataPath on dvs [%s]", __func__,
               host_switch->id().c_str());
    errors_.Add(ErrorSink::kGeneral, error);
    errors_.Add(ErrorSink::kGeneral, "Failed sending the VTEP_HA Params to DataPath on dvs");
    good = false;
  }
  return ApplyHighPerformance(*host_switch) && good;
}

bool HostSwitchApplication::ApplyHighPerformance(const HostSwitch& host_switch) {
  std::vector<std::string> texts;
  bool pending = false;
  if (high_performance_.ProcessHighPerformanceProfile(host_switch, &texts, &pending)) return true;
  ZLOG_ERROR("42079", "[%s] Failed configuring the highPerformance profile params to datapath on dvs [%s]",
             __func__, host_switch.id().c_str());
  for (std::string& text : texts) errors_.Add(ErrorSink::kGeneral, std::move(text));
  return false;
}

}  // namespace zem::zema
