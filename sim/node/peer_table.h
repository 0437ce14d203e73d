#pragma once

#include <memory>
#include <span>

#include "sim/control/peer.h"

namespace zem {
class AsioZemProvider;
}

namespace zem::sim {

class DaemonProcess;
class DataplaneAgent;
class HostManagement;
class HostState;
class KafkaService;
class Manager;
class ObjectRegistry;
class StoreDaemon;
class SwitchState;
class VirtualMachines;
struct NodeOptions;
namespace guest {
class GuestWorld;
}

/// What the node has before it makes its peers.  All of it outlives them.
struct PeerContext {
  const NodeOptions& options;
  AsioZemProvider& control_provider;
  StoreDaemon& store;
  const ObjectRegistry& registry;
  Manager& manager;
  DataplaneAgent& dataplane;
  const HostState& host;
  HostManagement& host_management;
  VirtualMachines& machines;
  const SwitchState& switches;
  /// The guests, which outlive the daemon and the multiplexer's deaths.
  guest::GuestWorld& guests;
  /// The brokers, which other rows read.
  KafkaService& kafka;
  /// Not started yet: a peer may set variables for it.
  DaemonProcess& daemon;
};

struct PeerRow {
  /// The word behind which the node's command socket offers the peer's commands.
  const char* name;
  const char* help;
  std::unique_ptr<Peer> (*make)(const PeerContext& context);
};

/// The peers in the order in which the node makes them; it destroys them in reverse.
std::span<const PeerRow> PeerTable();

}  // namespace zem::sim
