#include "app/zemda/inventory/vm_records.h"

#include <array>

#include "app/zemda/inventory/property_tables.h"
#include "proto/ida/ida.pb.h"

namespace ZemDa {
namespace {

namespace ida = orlane::zem::ida;
using ida::InventoryObjectMsg;

constexpr uint32_t kNameKey = 0;
constexpr uint32_t kPowerStateKey = 1;
constexpr uint32_t kAddressesKey = 3;
constexpr uint32_t kAgentKey = 5;
constexpr uint32_t kGuestFullNameKey = 0;
constexpr uint32_t kGuestHostNameKey = 1;
constexpr uint32_t kGuestSource = 0;

struct OperationName {
  const char* update_type;
  InventoryObjectMsg::Operation operation;
};
constexpr std::array kOperations = {OperationName{"enter", InventoryObjectMsg::ENTER},
                                    OperationName{"modify", InventoryObjectMsg::MODIFY},
                                    OperationName{"leave", InventoryObjectMsg::LEAVE}};

struct PowerName {
  const char* text;
  ida::VmPowerState state;
};
constexpr std::array kPowerStates = {PowerName{"poweredOff", ida::VM_POWERED_OFF},
                                     PowerName{"poweredOn", ida::VM_POWERED_ON},
                                     PowerName{"suspended", ida::VM_SUSPENDED}};

void FillIdentifier(const Properties& properties, ida::VmIdentifierMsg* identifier) {
  for (const PropertyKey& each : kQubIdentifiers) {
    auto* const entry = identifier->add_qub_identifier_entry();
    entry->set_key(static_cast<ida::QubIdentifierKey>(each.key));
    entry->set_value(ValueOf(properties, each.name));
  }
  for (const PropertyKey& each : kVmIdentifiers) {
    auto* const entry = identifier->add_vm_identifier_entry();
    entry->set_key(static_cast<ida::VmIdentifierKey>(each.key));
    entry->set_value(ValueOf(properties, each.name));
  }
}

void FillEntries(const Properties& properties, ida::VirtualMachineMsg* vm) {
  const auto add = [vm](uint32_t key) {
    auto* const entry = vm->add_vm_entry();
    entry->set_key(key);
    return entry;
  };
  if (const std::string name = ValueOf(properties, "name"); !name.empty()) add(kNameKey)->set_value(name);
  if (const std::string power = ValueOf(properties, "runtime.powerState"); !power.empty()) {
    auto* const entry = add(kPowerStateKey);
    for (const PowerName& each : kPowerStates) {
      if (power == each.text) entry->set_value(ida::VmPowerState_Name(each.state));
    }
  }
  if (ValueOf(properties, "ipAddresses") == "empty") add(kAddressesKey)->set_value("");
  std::string agent = ValueOf(properties, "HDCS.agent");
  if (agent.empty()) agent = ValueOf(properties, "vCLSCRX.agent");
  if (agent == "true") add(kAgentKey)->set_value("true");
}

void FillGuest(const Properties& properties, ida::VirtualMachineMsg* vm) {
  const std::string host_name = ValueOf(properties, "guest.hostName");
  const std::string full_name = ValueOf(properties, "guest.guestFullName");
  const auto add = [vm](uint32_t key, const std::string& value) {
    if (value.empty()) return;
    auto* const entry = vm->mutable_guest_info()->add_guest_entry();
    entry->set_key(key);
    entry->set_value(value);
  };
  add(kGuestHostNameKey, host_name);
  add(kGuestFullNameKey, full_name);
}

void FillRuntime(const QubVM& qub, ida::VirtualMachineMsg* vm) {
  if (qub.runtime_devices.empty() && !qub.no_runtime_devices) return;
  auto* const runtime = vm->mutable_vm_runtime();
  for (const Properties& device : qub.runtime_devices) {
    auto* const entry = runtime->add_vni_runtime();
    entry->set_mac_key(ValueOf(device, "MacKey"));
    entry->set_uptv2_state(ValueOf(device, "runtime.device.uptv2Active"));
  }
}

InventoryObjectMsg DeviceRecord(const InventoryObjectMsg& owner, const std::string& external_id,
                                const QubVM::Device& device) {
  InventoryObjectMsg object;
  object.set_kind(InventoryObjectMsg::VIRTUAL_NETWORK_INTERFACE);
  if (owner.has_operation()) object.set_operation(owner.operation());
  if (device.removed && owner.operation() == InventoryObjectMsg::MODIFY) {
    object.set_operation(InventoryObjectMsg::LEAVE);
  }
  auto* const vni = object.mutable_virtual_network_interface();
  const std::string key = ValueOf(device.properties, "MacKey");
  vni->set_id(external_id + "-" + key);
  *vni->mutable_owner_vm() = owner.virtual_machine().vm_identifier();
  if (ValueOf(device.properties, "MacAddress").empty()) {
    auto* const entry = vni->add_vni_entry();
    entry->set_key(ida::VNI_PROPERTY_MAC_KEY);
    entry->set_value(key);
    const bool leaves = object.operation() == InventoryObjectMsg::LEAVE;
    if (!device.tells_addresses && !leaves) return object;
    auto* const info = vni->add_ip_address_info();
    info->set_source(kGuestSource);
    for (const std::string& address : device.addresses) info->add_address(address);
    return object;
  }
  for (const PropertyKey& each : kVniProperties) {
    auto* const entry = vni->add_vni_entry();
    entry->set_key(static_cast<ida::VniPropertyKey>(each.key));
    const auto found = device.properties.find(each.name);
    if (found != device.properties.end()) entry->set_value(found->second == "empty" ? "" : found->second);
  }
  return object;
}

}  // namespace

void SetOperation(const std::string& update_type, InventoryObjectMsg* object) {
  for (const OperationName& each : kOperations) {
    if (update_type == each.update_type) object->set_operation(each.operation);
  }
}

std::vector<InventoryObjectMsg> VmRecords(const std::string& update_type, const QubVM& qub) {
  std::vector<InventoryObjectMsg> records;
  records.reserve(1 + qub.devices.size());
  InventoryObjectMsg& object = records.emplace_back();
  object.set_kind(InventoryObjectMsg::VIRTUAL_MACHINE);
  SetOperation(update_type, &object);
  auto* const vm = object.mutable_virtual_machine();
  FillIdentifier(qub.properties, vm->mutable_vm_identifier());
  FillEntries(qub.properties, vm);
  FillGuest(qub.properties, vm);
  FillRuntime(qub, vm);
  const std::string external_id = ValueOf(qub.properties, "vmExternalId");
  for (const QubVM::Device& device : qub.devices) {
    records.push_back(DeviceRecord(records.front(), external_id, device));
  }
  return records;
}

}  // namespace ZemDa
