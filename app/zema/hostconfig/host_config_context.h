#pragma once

#include <functional>
#include <string>

#include "framework/tasks/synchronizable.h"
#include "mpaclient/bus/raw_bus_message.h"
#include "platform/core/clock.h"

namespace zem {
class HostIdentity;
}  // namespace zem

namespace zem::zema {

class ConfigFiles;
class ConfigOpsManager;
class CoveDbHandler;
class EndpointLibrary;
class FollowUpTasks;
class HealthRecord;
class HighPerformanceProfile;
class LumCommands;
class MigrationRecord;
class OptionsStore;
class PortOpsManager;
class RouterPorts;
class SwitchLibrary;
struct HostConfigState;

/// The objects with which a host configuration is applied.  Everything that it refers to outlives the tasks.
struct HostConfigContext {
  LumCommands& lum;
  SwitchLibrary& library;
  PortOpsManager& ports;
  ConfigOpsManager& switches;
  RouterPorts& routers;
  EndpointLibrary& endpoints;
  HighPerformanceProfile& high_performance;
  MigrationRecord& migration;
  HealthRecord& health;
  HostIdentity& host;
  OptionsStore& options;
  ConfigFiles& files;
  /// Null on a host without store.
  CoveDbHandler* store;
  HostConfigState& state;
  FollowUpTasks& follow_ups;
  /// Waits; false when the daemon is stopping.
  std::function<bool(Duration)> pause;
  /// Held across each sequence of changes to a port, both here and on the threads that serve VIFs.
  Synchronizable& port_lock;
};

}  // namespace zem::zema
