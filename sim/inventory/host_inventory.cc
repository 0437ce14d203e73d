#include "sim/inventory/host_inventory.h"

#include <cctype>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <utility>

#include "sim/control/json.h"
#include "sim/host/host_state.h"
#include "sim/host/virtual_machines.h"
#include "sim/scenario/node_process.h"

namespace zem::sim {
namespace {

constexpr uint32_t kFirstDeviceKey = 4000;

// The 36 characters of a uuid out of any text with 32 hexadecimal digits.
std::string CanonicalUuid(const std::string& text) {
  std::string uuid;
  size_t digits = 0;
  const auto add = [&](char digit) {
    if (digits == 8 || digits == 12 || digits == 16 || digits == 20) uuid += '-';
    uuid += digit;
    ++digits;
  };
  for (const char c : text) {
    if (digits < 32 && std::isxdigit(static_cast<unsigned char>(c)) != 0) add(c);
  }
  while (digits < 32) add('0');
  return uuid;
}

// "eth0" is the first device.
uint32_t KeyOf(const std::string& device) {
  const size_t at = device.find_first_of("0123456789");
  return kFirstDeviceKey +
         (at == std::string::npos ? 0 : static_cast<uint32_t>(std::stoul(device.substr(at))));
}

std::string MacOf(const std::string& uuid, uint32_t key) {
  const size_t hash = std::hash<std::string>()(uuid);
  char text[18];
  std::snprintf(text, sizeof(text), "00:50:56:%02x:%02x:%02x", static_cast<unsigned>(hash & 0x3f),
                static_cast<unsigned>(hash >> 8 & 0xff), key & 0xff);
  return text;
}

}  // namespace

HostInventory::HostInventory(const HostState& host, VirtualMachines& machines)
    : host_(host), machines_(machines) {
  host_properties_ = {{"config.network.dnsConfig.fqdn", "host-1.example.net"},
                      {"summary.managementServerIp", "192.168.10.2"},
                      {"hardware.cpuInfo.cpuSockets", "2"},
                      {"hardware.cpuInfo.cpuCores", "16"},
                      {"hardware.cpuInfo.cpuThreads", "32"},
                      {"hardware.numaInfo.numNodes", "2"},
                      {"config.product.build", "18722"}};
}

HostFacts HostInventory::ReadHost() const {
  HostFacts facts;
  const Json host = host_.Read();
  const cJSON* each = nullptr;
  cJSON_ArrayForEach(each, At(host.get(), "pnics")) {
    const cJSON* const owner = At(each, "owner");
    facts.interfaces[each->string] = {.mac = TextAt(each, "mac"),
                                      .connected_switch = owner ? TextAt(owner, "switch") : std::string(),
                                      .backing = owner ? TextAt(owner, "kind") : std::string()};
  }
  cJSON_ArrayForEach(each, At(host.get(), "interfaces")) {
    facts.interfaces[each->string] = {.is_virtual = true,
                                      .is_management = TextAt(each, "type") == "management",
                                      .mac = TextAt(each, "mac"),
                                      .address = TextAt(each, "ip"),
                                      .connected_switch = TextAt(At(each, "where"), "switch"),
                                      .backing = TextAt(At(each, "where"), "kind"),
                                      .attachment = TextAt(At(each, "where"), "vif")};
  }
  facts.properties = host_properties_;
  facts.properties["config.product.version"] = TextAt(host.get(), "version");
  return facts;
}

InventoryFacts HostInventory::Read() {
  const auto machines = machines_.All();
  const std::lock_guard lock(mutex_);
  InventoryFacts facts;
  facts.host = ReadHost();
  for (const VirtualMachine& machine : machines) {
    Extra& extra = extras_[machine.uuid];
    if (extra.mo_id == 0) extra.mo_id = ++last_mo_id_;
    extra.has_external_id = extra.has_external_id || gives_external_ids_;
    VmFacts& vm = facts.vms[extra.mo_id];
    vm.mo_id = extra.mo_id;
    vm.name = extra.name.empty() ? machine.name : extra.name;
    vm.uuid = CanonicalUuid(machine.uuid);
    if (extra.has_external_id) vm.external_id = vm.uuid;
    vm.on = machine.on;
    vm.guest_host = extra.guest_host;
    for (const auto& [device, vnic] : machine.vnics) {
      const uint32_t key = KeyOf(device);
      VnicFacts& nic = vm.vnics[key];
      nic.mac = MacOf(machine.uuid, key);
      if (vnic.connected) nic.attachment = vnic.vif;
      if (const auto known = extra.addresses.find(key); known != extra.addresses.end())
        nic.addresses = known->second;
    }
  }
  return facts;
}

HostInventory::Extra& HostInventory::ExtraOf(const std::string& vm) {
  const auto found = machines_.Find(vm);
  if (found.size() != 1) throw std::runtime_error("no VM \"" + vm + "\"");
  return extras_[found.front().uuid];
}

void HostInventory::Rename(const std::string& vm, const std::string& name) {
  const std::lock_guard lock(mutex_);
  ExtraOf(vm).name = name;
}

void HostInventory::SetGuest(const std::string& vm, const std::string& host_name) {
  const std::lock_guard lock(mutex_);
  ExtraOf(vm).guest_host = host_name;
}

void HostInventory::SetAddresses(const std::string& vm, uint32_t key, std::vector<std::string> addresses) {
  const std::lock_guard lock(mutex_);
  ExtraOf(vm).addresses[key] = std::move(addresses);
}

void HostInventory::GiveExternalIds(bool on) {
  const std::lock_guard lock(mutex_);
  gives_external_ids_ = on;
}

void HostInventory::SetHostProperty(const std::string& name, const std::string& value) {
  const std::lock_guard lock(mutex_);
  host_properties_[name] = value;
}

}  // namespace zem::sim
