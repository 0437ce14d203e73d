#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "platform/core/virtual_clock.h"
#include "platform/provider/provider.h"
#include "platform/rpc/memory_network.h"
#include "sim/host/host_management.h"
#include "sim/host/host_state.h"
#include "sim/host/virtual_machines.h"
#include "sim/manager/manager.h"
#include "sim/store/store_daemon.h"
#include "sim/switch/sim_state.h"
#include "tests/world/world_capture.h"
#include "tests/world/world_flow.h"
#include "tests/world/world_guests.h"
#include "tests/world/world_ids.h"
#include "tests/world/world_introspection.h"
#include "tests/world/world_inventory.h"
#include "tests/world/world_services.h"
#include "tests/world/world_traces.h"

namespace zem {
class TnProxyClientCommon;
namespace Tarvik {
class AlarmsProvider;
class ZemaApp;
struct PartState;
}  // namespace Tarvik
namespace covedb {
class CoveDbClient;
}
}  // namespace zem

namespace zem::world {

inline constexpr const char* kNodeId = "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01";
inline constexpr const char* kAphs[] = {"0a000000-0000-4000-8000-000000000001",
                                        "0a000000-0000-4000-8000-000000000002",
                                        "0a000000-0000-4000-8000-000000000003"};
inline constexpr const char* kInfoEndpoint = "tcp://127.0.0.1:9004";
inline constexpr const char* kForwardingEndpoint = "tcp://127.0.0.1:4096";
inline constexpr const char* kStoreEndpoint = "tcp://127.0.0.1:2480";
inline constexpr const char* kAlarmsEndpoint = "tcp://127.0.0.1:9100";

/// The agent's state files, on a small file system of their own.
inline constexpr const char* kStateFolder = "/etc/orlane/zema";

/// The realization and the alarms provider with their clients of the manager and the store, and every peer
/// that it deals with, in one process on the virtual clock.  Runs in a sandbox: files, the management script
/// and the commands of the host are the simulated node's real ones, and virtual time stands still while those
/// processes work.
class WorldNode {
 public:
  /// Writes the agent's log lines to `log`; null: no log.  With a small cache logons are dropped.
  explicit WorldNode(std::FILE* log, bool small_logon_cache = false);
  ~WorldNode();

  void StartAgent();
  /// Stops in order, like a daemon that handles SIGTERM.
  void StopAgent();
  Tarvik::ZemaApp& app() { return *app_; }
  covedb::CoveDbClient& store_client() { return *store_client_; }
  /// The parts of the operators' status.
  void Describe(std::vector<Tarvik::PartState>* parts) const;

  VirtualClock clock;
  rpc::MemoryNetwork network;

 private:
  static void WriteHost();

  AsioZemProvider store_provider_;
  sim::ObjectRegistry registry_;

 public:
  sim::SwitchState switches;
  sim::HostState host{sim::HostState::DefaultRoot()};
  std::unique_ptr<sim::StoreDaemon> store;
  std::unique_ptr<sim::Manager> manager;
  std::unique_ptr<sim::HostManagement> host_management;
  std::unique_ptr<sim::VirtualMachines> machines;
  WorldIntrospection introspection;
  std::unique_ptr<WorldGuests> guests;
  std::unique_ptr<WorldFlow> flow;
  std::unique_ptr<WorldIds> ids;
  std::unique_ptr<WorldInventory> inventory;
  std::unique_ptr<WorldTraces> traces;
  std::unique_ptr<WorldServices> services;
  std::unique_ptr<WorldCapture> capture;

 private:
  std::unique_ptr<AsioZemProvider> provider_;
  std::shared_ptr<covedb::CoveDbClient> store_client_;
  std::shared_ptr<TnProxyClientCommon> proxy_client_;
  std::unique_ptr<Tarvik::ZemaApp> app_;
  std::shared_ptr<Tarvik::AlarmsProvider> alarms_;
};

}  // namespace zem::world
