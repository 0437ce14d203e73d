#include "app/zema/hostswitch/library_settings.h"

#include <utility>

#include "app/zema/hostlib/config_ops_manager.h"
#include "app/zema/hostlib/endpoint_library.h"
#include "app/zema/hostlib/port_props.h"
#include "app/zema/ports/port_description.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/state/realization_options.h"
#include "proto/switching/migration.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

// Takes the place of a VM's path.
constexpr const char* kKernelInterface = "knlnic";
// A bit of the entry's port flags.
constexpr uint32_t kBlocked = 1;

}  // namespace

PortConfigSpec PortOf(const QubMgmtIfToLogicSwitchMsg& entry, const std::string& zone) {
  PortConfigSpec spec;
  spec.port_id = entry.logical_port_id();
  spec.zone_id = zone;
  spec.switch_id = entry.lswitch_id();
  spec.init_state = entry.init_state();
  spec.uplink_teaming = entry.uplink_teaming_name();
  if (entry.has_vlan()) spec.vlan = static_cast<int32_t>(entry.vlan());
  for (const VlanRangeMsg& range : entry.vlan_range())
    spec.vlan_ranges.emplace_back(range.start(), range.end());
  for (const ConfigPairMsg& pair : entry.extra_configs()) spec.extra_configs[pair.key()] = pair.value();
  return spec;
}

InterfaceMigrationSettings MigrationSettings(PortOpsManager& ports, const RealizationOptions& options) {
  InterfaceMigrationSettings settings;
  settings.knl_types = options.knl_types_to_check_on_removing_pnic;
  settings.knl_ping_try_times = options.knl_ping_try_times;
  settings.create_port = [&ports](const QubMgmtIfToLogicSwitchMsg& entry, const std::string& zone) {
    return ports.creation().CreatePort(PortOf(entry, zone), entry.vif_id(), kKernelInterface,
                                       (entry.port_flags() & kBlocked) != 0);
  };
  settings.leave_port = [&ports](const QubMgmtIfToLogicSwitchMsg& entry, const std::string& zone) {
    return ports.changes().ClearVifFromPort(zone, entry.logical_port_id(), entry.lswitch_id(), entry.vif_id(),
                                            false);
  };
  settings.leave_ports = [&ports](const std::string& vif, const std::string& kept) {
    return ports.changes().ClearVifFromPortOtherThan(kept, vif);
  };
  return settings;
}

HostSwitchApplicationSettings ApplicationSettings(TransportZones& zones, ConfigOpsManager& config,
                                                  const EndpointLibrary& endpoints,
                                                  const RealizationOptions& options, bool upgrade) {
  HostSwitchApplicationSettings settings;
  settings.mode_standard_realization = options.host_switch_mode_standard_realization;
  settings.upgrade = upgrade;
  settings.set_tz_to_dvs_cache = [&zones](std::vector<TzDvs> list) { zones.SetTzToDvsCache(list); };
  settings.configure_teaming = [&config](const std::string& dvs, const SwitchTeaming& teaming) {
    return config.ConfigureTeaming(dvs, teaming);
  };
  settings.configure_named_teaming = [&config](const std::string& dvs,
                                               const std::vector<SwitchTeaming>& teamings) {
    return config.ConfigureNamedTeaming(dvs, teamings);
  };
  settings.endpoint_id_of = [&endpoints](const std::string& switch_name, const std::string& device) {
    return endpoints.EndpointId(switch_name, device);
  };
  settings.allow_resync = [](bool) {};
  settings.schedule_high_performance = [] {};
  return settings;
}

HighPerformanceSettings HighPerformanceProperties(ConfigOpsManager& config) {
  HighPerformanceSettings settings;
  settings.set_host_prop = [&config](const std::string& dvs, const std::string& property,
                                     const std::string& value) {
    return config.SetHostProp(dvs, property, value);
  };
  settings.clear_host_prop = [&config](const std::string& dvs, const std::string& property) {
    return config.ClearHostProp(dvs, property);
  };
  settings.has_host_prop = [&config](const std::string& dvs, const std::string& property) {
    return config.GetHostProp(dvs, property).has_value();
  };
  return settings;
}

DvsStatusOf DvsStatus(ConfigOpsManager& config) {
  return [&config](const std::string& dvs) { return config.GetHostProp(dvs, port_props::kVswitchStatus); };
}

TeamingReader ReadTeaming(ConfigOpsManager& config) {
  return [&config](const std::string& dvs, uint32_t* team_type, std::vector<std::string>* uplinks) {
    return config.GetTeaming(dvs, team_type, uplinks);
  };
}

LacpNamesReader ReadLacpNames(ConfigOpsManager& config) {
  return [&config](const std::string& dvs, std::vector<std::string>* names) {
    return config.GetLacpNames(dvs, names);
  };
}

}  // namespace zem::zema
