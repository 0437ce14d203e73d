#include "sim/switch/vif_ports.h"

#include <string_view>

#include "sim/switch/tree/json_file.h"
#include "sim/switch/tree/port_table.h"
#include "sim/switch/tree/state_tree.h"
#include "sim/switch/tree/value_list.h"

namespace zem::sim {
namespace {

constexpr const char* kExternalId = "com.orlane.port.extraConfig.vnic.external.id";
constexpr const char* kOpaqueNetwork = "com.orlane.port.extraConfig.opaqueNetwork.id";
constexpr const char* kPending = "com.orlane.port.extraConfig.portOp.pending";
constexpr const char* kPersist = "com.orlane.common.port.volatile.persist";
constexpr const char* kFiles = "/.dvsData";
constexpr uint32_t kFlags = 16;

std::string TextUntilZero(const std::string& bytes) { return bytes.substr(0, bytes.find('\0')); }

std::string Property(const PortPlace& place, const char* name) {
  const auto property = tree::ReadProperty(ports::PropertyPath(place.dvs, place.port, name));
  return property ? TextUntilZero(property->bytes) : std::string();
}

bool SetProperty(const PortPlace& place, const char* name, const std::string& text) {
  return tree::WriteFile(ports::PropertyPath(place.dvs, place.port, name),
                         tree::PropertyFile(kFlags, text + '\0'));
}

std::string FileOf(const std::string& vm_folder, const PortPlace& place) {
  return vm_folder + kFiles + "/" + place.dvs + "/" + place.port;
}

std::string StateFile(const PortPlace& place) { return tree::PortDir(place.dvs, place.port) + "/state.json"; }

template <class Each>
void ForEachPort(const Each& each) {
  for (const std::string& dvs : tree::List(tree::SwitchesDir()).value_or(std::vector<std::string>())) {
    static_cast<void>(tree::ForEachName(tree::SwitchDir(dvs) + "/ports", [&](std::string_view port) {
      each(PortPlace{dvs, std::string(port)});
    }));
  }
}

}  // namespace

std::optional<PortUse> ReadPortUse(const PortPlace& place) {
  const JsonFile state = ReadJson(StateFile(place));
  if (!state) return std::nullopt;
  return PortUse{Property(place, kExternalId), Property(place, kOpaqueNetwork), Property(place, kPending),
                 Property(place, kPersist), JsonString(state.get(), "connectedVnic")};
}

std::vector<PortPlace> PortsOfVif(const std::string& vif) {
  std::vector<PortPlace> found;
  ForEachPort([&](const PortPlace& place) {
    if (Property(place, kExternalId) == vif) found.push_back(place);
  });
  return found;
}

std::optional<PortPlace> PortOfVif(const std::string& vif, const std::string& ls,
                                   const std::vector<PortPlace>& likely) {
  const auto holds = [&](const PortPlace& place) {
    return Property(place, kExternalId) == vif && Property(place, kOpaqueNetwork) == ls;
  };
  for (const PortPlace& place : likely) {
    if (holds(place)) return place;
  }
  std::optional<PortPlace> found;
  ForEachPort([&](const PortPlace& place) {
    if (!found && holds(place)) found = place;
  });
  return found;
}

std::map<std::string, std::vector<PortPlace>> PortsByVif() {
  std::map<std::string, std::vector<PortPlace>> ports;
  ForEachPort([&](const PortPlace& place) {
    if (const std::string vif = Property(place, kExternalId); !vif.empty()) ports[vif].push_back(place);
  });
  return ports;
}

bool ConnectPort(const PortPlace& place, const std::string& vm, const std::string& vnic) {
  const tree::TreeLock lock;
  const JsonFile state = ReadJson(StateFile(place));
  if (!state) return false;
  SetJson(state.get(), "connectedVnic", vnic);
  SetJson(state.get(), "vmUuid", vm);
  SetJson(state.get(), "linkUp", !vnic.empty());
  return WriteJson(StateFile(place), state.get());
}

std::vector<PortPlace> PortFiles(const std::string& vm_folder) {
  std::vector<PortPlace> places;
  const std::string root = vm_folder + kFiles;
  for (const std::string& dvs : tree::List(root).value_or(std::vector<std::string>())) {
    for (const std::string& port : tree::List(root + "/" + dvs).value_or(std::vector<std::string>())) {
      places.push_back({dvs, port});
    }
  }
  return places;
}

std::optional<PortUse> ReadPortFile(const std::string& vm_folder, const PortPlace& place) {
  const auto bytes = tree::ReadFile(FileOf(vm_folder, place));
  const auto list = bytes ? ValueList::Deserialize(*bytes) : std::nullopt;
  if (!list) return std::nullopt;
  PortUse use;
  for (const ValueList::Item& item : list->items()) {
    if (item.name == kExternalId) use.vif = TextUntilZero(item.value);
    if (item.name == kOpaqueNetwork) use.ls = TextUntilZero(item.value);
    if (item.name == kPending) use.pending = TextUntilZero(item.value);
  }
  use.file = FileOf(vm_folder, place);
  return use;
}

std::string AddPort(const PortPlace& place) {
  if (!tree::GoodName(place.dvs) || !tree::GoodName(place.port)) return "no name for a port: " + place.port;
  const tree::TreeLock lock;
  if (ports::Add(place.dvs, place.port, ValueList()) != 0) return "cannot make port " + place.port;
  return {};
}

std::string LoadPort(const std::string& vm_folder, const PortPlace& place) {
  const tree::TreeLock lock;
  if (ports::Has(place.dvs, place.port)) return {};
  const std::string file = FileOf(vm_folder, place);
  const auto bytes = tree::ReadFile(file);
  const auto list = bytes ? ValueList::Deserialize(*bytes) : std::nullopt;
  if (!list) return "the port's file does not read: " + file;
  if (ports::Add(place.dvs, place.port, *list) != 0 || !SetProperty(place, kPersist, file)) {
    return "cannot make port " + place.port + " of its file";
  }
  return {};
}

std::string TakePort(const PortPlace& place, const std::string& vif, const std::string& pending) {
  const tree::TreeLock lock;
  if (!SetProperty(place, kExternalId, vif) || !SetProperty(place, kPending, pending)) {
    return "there is no port " + place.port;
  }
  return {};
}

}  // namespace zem::sim
