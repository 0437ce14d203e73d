#pragma once

#include <string>

#include "app/zema/hostswitch/dvs_config_info.h"
#include "app/zema/hostswitch/high_performance_profile.h"
#include "app/zema/hostswitch/host_switch_application.h"
#include "app/zema/migration/interface_migration.h"
#include "app/zema/proxy/host_switch_lists.h"

// Adapts the classes that reach the host's switch and endpoint libraries to what the application of a
// configuration needs.  All hold their arguments by reference.
namespace zem::zema {

class ConfigOpsManager;
class EndpointLibrary;
class PortOpsManager;
class TransportZones;
struct PortConfigSpec;
struct RealizationOptions;

/// The port of an interface that moves into a logical switch of `zone`.
PortConfigSpec PortOf(const orlane::zem::switching::QubMgmtIfToLogicSwitchMsg& entry,
                      const std::string& zone);

/// Leaves out the settings for the removal of the agent.
InterfaceMigrationSettings MigrationSettings(PortOpsManager& ports, const RealizationOptions& options);

/// Leaves out the callbacks for the resync and the high performance task, which then do nothing.
HostSwitchApplicationSettings ApplicationSettings(TransportZones& zones, ConfigOpsManager& config,
                                                  const EndpointLibrary& endpoints,
                                                  const RealizationOptions& options, bool upgrade);

HighPerformanceSettings HighPerformanceProperties(ConfigOpsManager& config);

DvsStatusOf DvsStatus(ConfigOpsManager& config);
TeamingReader ReadTeaming(ConfigOpsManager& config);
LacpNamesReader ReadLacpNames(ConfigOpsManager& config);

}  // namespace zem::zema
