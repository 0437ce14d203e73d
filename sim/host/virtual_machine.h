#pragma once

#include <map>
#include <optional>
#include <string>

#include "sim/control/json.h"

namespace zem::sim {

struct Vnic {
  std::string vif;
  std::string ls;
  /// The port that it is plugged into; empty: none.
  std::string dvs;
  std::string port;
  std::string port_group;
  bool connected = false;
};

/// A VM of the host: its folder is real, and its configuration file tells all that another host needs to take
/// it over.
struct VirtualMachine {
  std::string uuid;
  std::string name;
  /// Of the configuration file.
  std::string path;
  bool on = false;
  std::map<std::string, Vnic> vnics;

  std::string folder() const { return path.substr(0, path.rfind('/')); }
};

/// In the form of the host's journal.
Json ToJson(const VirtualMachine& machine);
VirtualMachine MachineOf(const std::string& uuid, const cJSON* object);

/// Writes the configuration file.  Throws std::runtime_error.
void WriteConfiguration(const VirtualMachine& machine);
/// What the configuration file in a folder says; nothing when there is none that reads.
std::optional<VirtualMachine> ReadConfiguration(const std::string& folder);

}  // namespace zem::sim
