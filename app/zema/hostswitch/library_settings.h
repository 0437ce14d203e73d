#pragma once

#include <string>

#include "app/zema/hostswitch/dvs_config_info.h"
#include "app/zema/hostswitch/high_performance_profile.h"
#include "app/zema/hostswitch/host_switch_application.h"
#include "app/zema/migration/interface_migration.h"
#include "app/zema/proxy/host_switch_lists.h"

// What the application of a configuration needs of the host's switch and endpoint libraries, made of the
// classes that reach them.  All hold their arguments by reference.
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

/// Without what concerns the removal of the agent.
InterfaceMigrationSettings MigrationSettings(PortOpsManager& ports, const RealizationOptions& options);

/// Without the resync and the high performance task: nobody is told.
HostSwitchApplicationSettings ApplicationSettings(TransportZones& zones, ConfigOpsManager& config,
                                                  const EndpointLibrary& endpoints,
                                                  const RealizationOptions& options, bool upgrade);

HighPerformanceSettings HighPerformanceProperties(ConfigOpsManager& config);

DvsStatusOf DvsStatus(ConfigOpsManager& config);
TeamingReader ReadTeaming(ConfigOpsManager& config);
LacpNamesReader ReadLacpNames(ConfigOpsManager& config);

}  // namespace zem::zema
