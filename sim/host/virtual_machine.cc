#include "sim/host/virtual_machine.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zem::sim {
namespace {

constexpr const char* kExtension = ".cfg";

std::string Text(const cJSON* object, const char* name) {
  const char* const text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name));
  return text == nullptr ? std::string() : text;
}

}  // namespace

Json ToJson(const VirtualMachine& machine) {
  Json object = JsonObject();
  AddMember(object.get(), "name", machine.name);
  AddMember(object.get(), "path", machine.path);
  AddMember(object.get(), "power", machine.on ? "on" : "off");
  Json vnics = JsonObject();
  for (const auto& [device, vnic] : machine.vnics) {
    Json item = JsonObject();
    AddMember(item.get(), "vif", vnic.vif);
    AddMember(item.get(), "ls", vnic.ls);
    AddMember(item.get(), "switch", vnic.dvs);
    AddMember(item.get(), "port", vnic.port);
    AddMember(item.get(), "portGroup", vnic.port_group);
    AddMember(item.get(), "connected", vnic.connected);
    AddMember(vnics.get(), device.c_str(), std::move(item));
  }
  AddMember(object.get(), "vnics", std::move(vnics));
  return object;
}

VirtualMachine MachineOf(const std::string& uuid, const cJSON* object) {
  VirtualMachine machine;
  machine.uuid = uuid;
  machine.name = Text(object, "name");
  if (machine.name.empty()) machine.name = uuid;
  machine.path = Text(object, "path");
  machine.on = Text(object, "power") == "on";
  const cJSON* item = nullptr;
  cJSON_ArrayForEach(item, cJSON_GetObjectItemCaseSensitive(object, "vnics")) {
    Vnic& vnic = machine.vnics[item->string];
    vnic.vif = Text(item, "vif");
    vnic.ls = Text(item, "ls");
    vnic.dvs = Text(item, "switch");
    vnic.port = Text(item, "port");
    vnic.port_group = Text(item, "portGroup");
    vnic.connected = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(item, "connected")) != 0;
  }
  return machine;
}

void WriteConfiguration(const VirtualMachine& machine) {
  Json object = ToJson(machine);
  AddMember(object.get(), "uuid", machine.uuid);
  const std::string temporary = machine.path + ".new";
  std::ofstream out(temporary, std::ios::trunc);
  out << JsonText(object.get()) << "\n";
  out.close();
  if (!out || std::rename(temporary.c_str(), machine.path.c_str()) != 0) {
    throw std::runtime_error("cannot write " + machine.path);
  }
}

std::optional<VirtualMachine> ReadConfiguration(const std::string& folder) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    if (entry.path().extension() != kExtension) continue;
    std::ifstream in(entry.path());
    std::ostringstream text;
    text << in.rdbuf();
    const Json object(cJSON_Parse(text.str().c_str()));
    if (!object || Text(object.get(), "uuid").empty()) continue;
    VirtualMachine machine = MachineOf(Text(object.get(), "uuid"), object.get());
    machine.path = entry.path();
    machine.on = false;
    for (auto& [device, vnic] : machine.vnics) {
      vnic.dvs.clear();
      vnic.port.clear();
      vnic.connected = false;
    }
    return machine;
  }
  return std::nullopt;
}

}  // namespace zem::sim
