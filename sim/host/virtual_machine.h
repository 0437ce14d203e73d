#pragma once

#include <map>
#include <optional>
#include <string>

#include "sim/control/json.h"

namespace zem::sim {

struct Vnic {
  std::string vif;
  std::string ls;
  /// The port that the vNIC is connected to; empty when it is not connected.
  std::string dvs;
  std::string port;
  std::string port_group;
  bool connected = false;
};

/// A VM of the host.  Its folder is a real one, and the configuration file in it holds all that another host
/// needs to take the VM over.
struct VirtualMachine {
  std::string uuid;
  std::string name;
  /// The path of the configuration file.
  std::string path;
  bool on = false;
  std::map<std::string, Vnic> vnics;

  std::string folder() const { return path.substr(0, path.rfind('/')); }
};

/// Serialises the VM in the format of the host's journal.
Json ToJson(const VirtualMachine& machine);
VirtualMachine MachineOf(const std::string& uuid, const cJSON* object);

/// Writes the configuration file.  Throws std::runtime_error.
void WriteConfiguration(const VirtualMachine& machine);
/// Reads the configuration file in a folder; returns nothing when there is none or it cannot be parsed.
std::optional<VirtualMachine> ReadConfiguration(const std::string& folder);

}  // namespace zem::sim
