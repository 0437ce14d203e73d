#pragma once

#include <cstddef>
#include <string>

namespace zem::sim {

class DaemonProcess;
class HostManagement;
class HostState;
class LogSink;
class Manager;
class VirtualMachines;

/// The sources of a picture of the node.
struct NodeView {
  const HostState& host;
  VirtualMachines& machines;
  Manager& manager;
  const HostManagement& host_management;
  const DaemonProcess& daemon;
  const LogSink& log;
  /// Largest number of ports of a switch, and of VMs, that are listed one by one.
  size_t most = 20;
};

/// Describes the node in readable lines: its switches with uplinks, endpoints and ports, its interfaces and
/// VMs, and every difference from the manager's wishes, with the messages of the daemon and the port
/// operations about it.
std::string DrawNode(const NodeView& view);

}  // namespace zem::sim
