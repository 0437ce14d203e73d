#include "sim/inventory/inventory_lines.h"

#include <algorithm>

namespace zem::sim {
namespace {

// A line holds one value.
std::string OneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

// "empty" clears the value of a virtual interface.
std::string Cleared(const std::string& value) { return value.empty() ? "empty" : value; }

void AddChange(const std::string& name, const std::string& value, InventoryLines* lines) {
  lines->push_back("Name=" + name);
  lines->push_back("Operation=assign");
  lines->push_back("Value=" + OneLine(value));
}

void AddDevice(uint32_t key, const VnicFacts& nic, InventoryLines* lines) {
  lines->push_back("MacAddress=" + nic.mac);
  lines->push_back("MacKey=" + std::to_string(key));
  lines->push_back("DevName=Network adapter " + std::to_string(key - 3999));
  lines->push_back("LportAttachmentId=" + Cleared(nic.attachment));
  lines->push_back("BackingType=OpaqueNetwork");
  for (const char* const absent : {"BackingName", "BackingPortSwitchUuid", "BackingPortPortgroupKey",
                                   "BackingPortPortKey", "BackingPortConnectionCookie"}) {
    lines->push_back(std::string(absent) + "=None");
  }
  lines->push_back("config.hardware.device.uptv2Enabled=false");
}

void AddAddresses(uint32_t key, const VnicFacts& nic, InventoryLines* lines) {
  lines->push_back("MacKey=" + std::to_string(key));
  std::string all;
  for (const std::string& address : nic.addresses) all += (all.empty() ? "" : " ") + address;
  lines->push_back("ipAddress=" + all);
}

void BeginVm(const char* update_type, const VmFacts& vm, InventoryLines* lines) {
  lines->push_back(std::string("UpdateType=") + update_type);
  lines->push_back("ObjectType=VM");
  lines->push_back("Name=" + OneLine(vm.name));
  lines->push_back("MoId=" + std::to_string(vm.mo_id));
}

const char* PowerOf(const VmFacts& vm) { return vm.on ? "poweredOn" : "poweredOff"; }

}  // namespace

void AddHostBlock(const char* update_type, const HostFacts* before, const HostFacts& host,
                  InventoryLines* lines) {
  lines->push_back(std::string("UpdateType=") + update_type);
  lines->push_back("ObjectType=Host");
  for (const auto& [name, interface] : host.interfaces) {
    if (!interface.is_management) continue;
    lines->push_back("MgmtVnicDevice=" + name);
    lines->push_back("Name=" + name);
    lines->push_back("Operation=assign");
  }
  lines->push_back("ChangeDataStart");
  AddChange("config.network.nics", "Changed", lines);
  AddChange("config.network.switches", "Changed", lines);
  // The agent reads the tables of all interfaces anew, so each of them gets its values again.
  for (const auto& [name, interface] : host.interfaces) {
    if (!interface.is_virtual) {
      const std::string switches = "config.network.switches." + name;
      AddChange(switches, interface.connected_switch, lines);
      AddChange(switches + ".BackingType", interface.backing, lines);
      continue;
    }
    const std::string vnic = "config.network.nics.vnic." + name;
    if (before != nullptr) {
      const auto known = before->interfaces.find(name);
      if (known == before->interfaces.end() || known->second != interface) AddChange(vnic, "Changed", lines);
    }
    AddChange(vnic + ".LportAttachmentId", Cleared(interface.attachment), lines);
    AddChange(vnic + ".ConnectedSwitch", Cleared(interface.connected_switch), lines);
    AddChange(vnic + ".BackingType", Cleared(interface.backing), lines);
  }
  for (const auto& [name, value] : host.properties) AddChange(name, value, lines);
  lines->push_back("ChangeDataEnd");
}

void AddVmBlock(const VmFacts& vm, InventoryLines* lines) {
  BeginVm("enter", vm, lines);
  for (const auto& [key, nic] : vm.vnics) AddDevice(key, nic, lines);
  for (const auto& [key, nic] : vm.vnics) {
    if (!nic.addresses.empty()) AddAddresses(key, nic, lines);
  }
  lines->push_back("ChangeDataStart");
  AddChange("config.uuid", vm.uuid, lines);
  AddChange("config.instanceUuid", vm.uuid, lines);
  AddChange("config.locationId", vm.uuid, lines);
  if (!vm.external_id.empty()) AddChange("vmExternalId", vm.external_id, lines);
  AddChange("runtime.powerState", PowerOf(vm), lines);
  if (!vm.guest_host.empty()) AddChange("guest.hostName", vm.guest_host, lines);
  lines->push_back("ChangeDataEnd");
}

void AddVmChange(const VmFacts& before, const VmFacts& now, InventoryLines* lines) {
  if (before == now) return;
  BeginVm("modify", now, lines);
  for (const auto& [key, nic] : now.vnics) {
    const auto known = before.vnics.find(key);
    const bool other_properties = known == before.vnics.end() || known->second.mac != nic.mac ||
                                  known->second.attachment != nic.attachment;
    const bool other_addresses =
        known == before.vnics.end() ? !nic.addresses.empty() : known->second.addresses != nic.addresses;
    if (other_properties) AddDevice(key, nic, lines);
    // What reads the attachment's record anew has lost the addresses with it.
    if (other_addresses || (other_properties && !nic.addresses.empty())) AddAddresses(key, nic, lines);
  }
  lines->push_back("ChangeDataStart");
  for (const auto& [key, nic] : before.vnics) {
    if (now.vnics.count(key) != 0) continue;
    lines->push_back("Name=config.hardware.device[" + std::to_string(key) + "].backing");
    lines->push_back("Operation=nicRemove");
  }
  if (before.name != now.name) AddChange("name", now.name, lines);
  if (before.external_id != now.external_id) AddChange("vmExternalId", now.external_id, lines);
  if (before.on != now.on) AddChange("runtime.powerState", PowerOf(now), lines);
  if (before.guest_host != now.guest_host) AddChange("guest.hostName", now.guest_host, lines);
  lines->push_back("ChangeDataEnd");
}

void AddVmLeave(const VmFacts& vm, InventoryLines* lines) {
  BeginVm("leave", vm, lines);
  lines->push_back("ChangeDataEnd");
}

}  // namespace zem::sim
