#pragma once

#include <functional>
#include <string>

#include "framework/tasks/synchronizable.h"
#include "mpaclient/bus/raw_bus_message.h"
#include "platform/core/clock.h"

namespace orlane::zem::switching {
class HostConfigMsg;
}

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

/// What the application of a host configuration works on.  Everything outlives the tasks.
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
  /// Told of each configuration once it has been applied.
  std::function<void(const orlane::zem::switching::HostConfigMsg&)> applied;
  /// Waits; false when the daemon is stopping.
  std::function<bool(Duration)> pause;
  /// Held across each sequence of changes to a port, here as on the threads that serve VIFs.
  Synchronizable& port_lock;
  /// Ends the maintenance mode in this process: the node to which it belonged is gone.
  std::function<void()> leave_maintenance = [] {};
  /// Runs the work on the thread of the host configurations, so much later; replaces what waits already.
  std::function<void(Duration, std::function<void()>)> later = [](Duration, std::function<void()>) {};
  /// Runs the work on the thread of the host configurations, behind what waits there already.
  std::function<void(std::function<void()>)> queue = [](const std::function<void()>& work) { work(); };
};

}  // namespace zem::zema
