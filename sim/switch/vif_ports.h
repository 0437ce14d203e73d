#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zem::sim {

/// The ports of the host's switches as seen by the code that connects vNICs: by the VIF that they hold.
///
/// Threads: all operations from any thread; changes of ports take the tree's lock.

struct PortPlace {
  std::string dvs;
  std::string port;

  bool operator==(const PortPlace&) const = default;
};

/// The user data of a port: the VIF it is for, and the vNIC that is connected.
struct PortUse {
  std::string vif;
  std::string ls;
  /// "attach_port" or "detach_port" while the manager has not been informed.
  std::string pending;
  /// Folder in which the port's data is kept beside the VM; empty: none.
  std::string file;
  /// The connected vNIC; empty: none.
  std::string vnic;
};

/// Returns nothing when there is no such port.
std::optional<PortUse> ReadPortUse(const PortPlace& place);

/// Returns all ports that hold the VIF.
std::vector<PortPlace> PortsOfVif(const std::string& vif);
/// Returns the port that holds the VIF in the logical switch.  The `likely` ports are searched first.
std::optional<PortPlace> PortOfVif(const std::string& vif, const std::string& ls,
                                   const std::vector<PortPlace>& likely);
/// Returns every port that holds a VIF.
std::map<std::string, std::vector<PortPlace>> PortsByVif();

/// Connects a port to a vNIC, or disconnects it for an empty name.  Returns false when there is no such port.
[[nodiscard]] bool ConnectPort(const PortPlace& place, const std::string& vm, const std::string& vnic);

/// Returns the ports whose data is stored in a VM's folder.
std::vector<PortPlace> PortFiles(const std::string& vm_folder);
/// Returns the opaque network in a port's file; nothing when the file cannot be parsed.
std::optional<PortUse> ReadPortFile(const std::string& vm_folder, const PortPlace& place);

/// Makes a port without the agent: a new one without properties, or one from the file in the VM's folder.
/// Returns what is wrong, or an empty text.
std::string AddPort(const PortPlace& place);
std::string LoadPort(const std::string& vm_folder, const PortPlace& place);
/// Assigns a port to a VIF, as the host does while the agent is down.
std::string TakePort(const PortPlace& place, const std::string& vif, const std::string& pending);

}  // namespace zem::sim
