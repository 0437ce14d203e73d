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

/// Everything that a picture of the node is drawn from.
struct NodeView {
  const HostState& host;
  VirtualMachines& machines;
  Manager& manager;
  const HostManagement& host_management;
  const DaemonProcess& daemon;
  const LogSink& log;
  /// Ports of a switch, and VMs, that are drawn one by one.
  size_t most = 20;
};

/// The node for people, in lines: its switches with uplinks, endpoints and ports, its interfaces and VMs, and
/// what is not as the manager wants it, with what the daemon and the port operations said about it.
std::string DrawNode(const NodeView& view);

}  // namespace zem::sim
