#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zem::sim {

/// The ports of the host's switches as whoever connects vNICs with them sees them: by the VIF that they hold.
///
/// Threads: all operations from any thread; what changes ports takes the lock of the tree.

struct PortPlace {
  std::string dvs;
  std::string port;

  bool operator==(const PortPlace&) const = default;
};

/// What a port says of whom it is for, and who is connected.
struct PortUse {
  std::string vif;
  std::string ls;
  /// "attach_port" or "detach_port" when the manager has not been told.
  std::string pending;
  /// Where its data is kept beside the VM; empty when nowhere.
  std::string file;
  /// Empty: nobody.
  std::string vnic;
};

/// Nothing when there is no such port.
std::optional<PortUse> ReadPortUse(const PortPlace& place);

/// All ports that hold the VIF; `likely` are looked at first, and when one of them holds VIF and switch,
/// alone.
std::vector<PortPlace> PortsOfVif(const std::string& vif);
std::optional<PortPlace> PortOfVif(const std::string& vif, const std::string& ls,
                                   const std::vector<PortPlace>& likely);
/// Every port that holds a VIF.
std::map<std::string, std::vector<PortPlace>> PortsByVif();

/// Connects a port with a vNIC, or, for an empty name, with nobody.  False when there is no such port.
[[nodiscard]] bool ConnectPort(const PortPlace& place, const std::string& vm, const std::string& vnic);

/// The ports whose data stands in a VM's folder.
std::vector<PortPlace> PortFiles(const std::string& vm_folder);
/// The opaque network in a port's file; nothing when it does not read.
std::optional<PortUse> ReadPortFile(const std::string& vm_folder, const PortPlace& place);

/// A port that nobody but the host makes: a new one without properties, or what its file in the VM's folder
/// says.  Gives what is wrong.
std::string AddPort(const PortPlace& place);
std::string LoadPort(const std::string& vm_folder, const PortPlace& place);
/// Gives a port to a VIF as the host does while nobody serves it.
std::string TakePort(const PortPlace& place, const std::string& vif, const std::string& pending);

}  // namespace zem::sim
