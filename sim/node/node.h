#pragma once

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "platform/provider/provider.h"
#include "sim/control/command_table.h"
#include "sim/control/peer.h"
#include "sim/host/edge_service.h"
#include "sim/host/host_management.h"
#include "sim/host/host_state.h"
#include "sim/host/virtual_machines.h"
#include "sim/manager/manager.h"
#include "sim/sandbox/daemon_process.h"
#include "sim/sandbox/host_setup.h"
#include "sim/sandbox/kill_switch.h"
#include "sim/sinks/health_sink.h"
#include "sim/sinks/log_sink.h"
#include "sim/store/store_daemon.h"
#include "sim/switch/library_folder.h"
#include "sim/switch/sim_state.h"

namespace zem::sim {

class ControlServer;
class DataplaneAgent;
class KafkaService;
class RawListeners;
namespace guest {
class GuestWorld;
}

/// Folder in which the daemon's loader finds the host's libraries.
inline constexpr const char* kLoadedLibraries = "/run/zem-libraries";

/// The settings of a node.
struct NodeOptions {
  /// The default closes batches of logical switches soon enough for a person who watches.
  static constexpr const char* kRealizationOptions =
      "{\"mp\": {\"lsMsgBatchInterval\": 4, \"lsMsgIncomingWaitInBatch\": 1}}\n";

  /// The operators' program, for "tarvikctl".
  std::string tarvikctl;
  /// The exact content of "/etc/zem_issue"; empty: no file.
  std::string issue = "node-type: zem-qub\n";
  /// The daemon's options file; empty: none.
  std::string daemon_options;
  /// The realization's options file; empty: the default options.
  std::string realization_options = kRealizationOptions;
  HostSetup host;
  std::string transport_node_id = "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01";
  /// Ids of the APHs; the first one is the master.
  std::vector<std::string> aphs = {"0a000000-0000-4000-8000-000000000001",
                                   "0a000000-0000-4000-8000-000000000002",
                                   "0a000000-0000-4000-8000-000000000003"};
  /// Words that start a program which becomes the daemon, whose path is put behind them; empty: none.
  std::vector<std::string> launcher;
  bool start_daemon = true;
  /// Copies the daemon's log to standard output.
  bool follow_log = false;
};

/// The simulated node: the daemon itself, and every process, library and tool that it deals with.  Runs in a
/// sandbox, where the real paths and ports are the node's own.
///
/// Threads: constructed and destroyed by one thread; commands arrive on the control socket's threads.
class Node {
 public:
  explicit Node(NodeOptions options);
  ~Node();

  /// Serves commands on the control socket until "stop" or a signal; returns the exit code.
  int Run();

  CommandTable& commands() { return commands_; }

 private:
  friend void RegisterNodeCommands(CommandTable& table, Node& node);

  void WriteFiles();
  void MakePeers();

  const NodeOptions options_;
  AsioZemProvider control_provider_;
  AsioZemProvider store_provider_;

  std::unique_ptr<LogSink> log_;
  std::unique_ptr<HealthSink> health_;
  SwitchState switch_state_;
  LibraryFolder libraries_{kLoadedLibraries};
  HostState host_state_{HostState::DefaultRoot()};
  ObjectRegistry registry_;
  std::unique_ptr<StoreDaemon> store_;
  std::unique_ptr<Manager> manager_;
  std::unique_ptr<DataplaneAgent> dataplane_;
  std::unique_ptr<RawListeners> listeners_;
  std::unique_ptr<HostManagement> host_management_;
  std::unique_ptr<VirtualMachines> machines_;
  EdgeService edge_;
  std::unique_ptr<guest::GuestWorld> guests_;
  std::unique_ptr<KafkaService> kafka_;
  std::unique_ptr<KillSwitch> kill_switch_;
  std::unique_ptr<DaemonProcess> daemon_;

  struct PeerEntry {
    std::string name;
    std::string help;
    std::unique_ptr<Peer> peer;
    CommandTable commands;
  };
  // In the order of the table; a list, because the commands refer to their entry.
  std::list<PeerEntry> peers_;
  CommandTable commands_;
  std::unique_ptr<ControlServer> control_;
};

void RegisterNodeCommands(CommandTable& table, Node& node);

}  // namespace zem::sim
