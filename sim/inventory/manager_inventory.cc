#include "sim/inventory/manager_inventory.h"

#include <utility>

#include "proto/ida/ida_vertical.pb.h"
#include "sim/manager/manager.h"

namespace zem::sim {
namespace {

namespace ida = orlane::zem::ida;

constexpr const char* kVertical = "INVENTORY_DISCOVERY_APPLICATION";
constexpr const char* kAnswerType = "com.orlane.zem.ida.IdaMessage";
constexpr const char* kForeignType = "com.orlane.zem.ida.InventoryDiscoveryMessage.IdaMessage";
constexpr const char* kGarbage = "\x0a\xff\xff\xff\xff garbage";
constexpr size_t kMostViolations = 100;

constexpr int kFullSync = 0;
constexpr int kUpdate = 1;
constexpr int kCommand = 2;

std::string ExternalIdOf(const ida::VmIdentifierMsg& vm) {
  for (const auto& entry : vm.vm_identifier_entry()) {
    if (entry.key() == ida::VM_IDENTIFIER_EXTERNAL_ID) return entry.value();
  }
  return {};
}

std::string LocalIdOf(const ida::VmIdentifierMsg& vm) {
  for (const auto& entry : vm.qub_identifier_entry()) {
    if (entry.key() == ida::QUB_IDENTIFIER_HOST_LOCAL_ID) return entry.value();
  }
  return {};
}

}  // namespace

ManagerInventory::ManagerInventory(Manager& manager) : manager_(manager) {
  manager_.SetPeer(kVertical, [this](const PeerMessage& message) { return Take(message); });
}

ManagerInventory::~ManagerInventory() { manager_.SetPeer(kVertical, {}); }

void ManagerInventory::SetAnswers(Answers answers, int count) {
  const std::lock_guard lock(mutex_);
  answers_ = answers;
  answers_left_ = count;
}

std::string ManagerInventory::AskFullSync() {
  Manager::SendRequest request;
  request.vertical = kVertical;
  request.member = "ida";
  request.type = kAnswerType;
  request.text = "message_type: 2 command: 1";
  request.timeout = std::chrono::seconds(10);
  return manager_.Send(request, [](const HostAnswer&) {});  // the agent does not answer
}

void ManagerInventory::Forget() {
  const std::lock_guard lock(mutex_);
  state_.vms.clear();
  state_.vnis.clear();
  state_.host.clear();
  state_.interfaces.clear();
}

ManagerInventory::State ManagerInventory::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

void ManagerInventory::Violation(const std::string& text) {
  if (state_.violations.size() < kMostViolations) state_.violations.push_back("inventory: " + text);
}

std::optional<std::string> ManagerInventory::Take(const PeerMessage& message) {
  ida::IdaMpUnifiedMsg unified;
  const std::lock_guard lock(mutex_);
  if (!unified.ParseFromString(message.payload) || !unified.has_ida()) {
    Violation("a message without an inventory message");
    return std::nullopt;
  }
  Answers answers = Answers::kGood;
  if (answers_left_ != 0) {
    answers = answers_;
    if (answers_left_ > 0) --answers_left_;
  }
  // What is not answered was lost on its way.
  if (answers == Answers::kNever) return std::nullopt;
  Apply(unified.ida());
  if (answers == Answers::kGarbage) return std::string(kGarbage);
  ida::IdaHostUnifiedMsg answer;
  answer.set_type(answers == Answers::kForeignType ? kForeignType : kAnswerType);
  answer.mutable_ida()->set_message_type(kCommand);
  answer.mutable_ida()->set_command(unified.ida().message_type() == kCommand ? ida::SYNC_INIT : ida::ACK);
  return answer.SerializeAsString();
}

void ManagerInventory::Apply(const ida::IdaMsg& message) {
  if (message.message_type() == kCommand) {
    if (message.command() != ida::IDA_INVALID) Violation("an unknown command");
    ++state_.requests;
    return;
  }
  if (message.message_type() == kUpdate && message.command() == ida::HEARTBEAT) {
    ++state_.heartbeats;
    return;
  }
  if (message.message_type() == kFullSync) {
    ++state_.full_syncs;
    state_.vms.clear();
    state_.vnis.clear();
    state_.host.clear();
    state_.interfaces.clear();
  } else if (message.message_type() == kUpdate) {
    ++state_.updates;
    if (message.inventory_object().empty()) Violation("an update of nothing");
  } else {
    Violation("a message of type " + std::to_string(message.message_type()));
  }
  for (const auto& object : message.inventory_object()) ApplyObject(object);
}

void ManagerInventory::ApplyObject(const ida::InventoryObjectMsg& object) {
  const bool leaves = object.operation() == ida::InventoryObjectMsg::LEAVE;
  if (!object.has_operation()) Violation("an object without operation");
  if (object.has_host()) {
    for (const auto& entry : object.host().host_entry()) state_.host[entry.key()] = entry.value();
    if (object.host().interface().empty()) return;
    state_.interfaces.clear();
    for (const auto& each : object.host().interface()) {
      Interface& interface = state_.interfaces[each.name()];
      interface.is_virtual = each.kind() == ida::InterfaceMsg::VIRTUAL;
      interface.is_management = each.is_management();
      interface.connected_switch = each.connected_switch();
      interface.backing = each.backing_type();
      interface.attachment = each.lport_attachment_id();
      for (const auto& entry : each.interface_entry()) {
        interface.mac = entry.mac_address();
        if (!entry.ip_address().empty()) interface.address = entry.ip_address();
      }
    }
  } else if (object.has_virtual_machine()) {
    const std::string id = ExternalIdOf(object.virtual_machine().vm_identifier());
    if (id.empty()) return Violation("a VM without an external id");
    if (leaves) {
      state_.vms.erase(id);
      std::erase_if(state_.vnis, [&](const auto& each) { return each.first.starts_with(id + "-"); });
      return;
    }
    Vm& vm = state_.vms[id];
    vm.local_id = LocalIdOf(object.virtual_machine().vm_identifier());
    for (const auto& entry : object.virtual_machine().vm_entry()) vm.entries[entry.key()] = entry.value();
    for (const auto& entry : object.virtual_machine().guest_info().guest_entry()) {
      if (entry.key() == 1) vm.guest_host = entry.value();
    }
  } else if (object.has_virtual_network_interface()) {
    const auto& vni = object.virtual_network_interface();
    if (leaves) {
      state_.vnis.erase(vni.id());
      return;
    }
    Vni& known = state_.vnis[vni.id()];
    for (const auto& entry : vni.vni_entry()) {
      if (entry.key() == ida::VNI_PROPERTY_MAC_ADDRESS) known.mac = entry.value();
      if (entry.key() == ida::VNI_PROPERTY_LPORT_ATTACHMENT_ID) known.attachment = entry.value();
    }
    for (const auto& info : vni.ip_address_info())
      known.addresses.assign(info.address().begin(), info.address().end());
  } else {
    Violation("an object of nothing");
  }
}

// --- The diff.

namespace {

constexpr std::pair<const char*, uint32_t> kHostKeys[] = {
    {"config.network.dnsConfig.fqdn", 0}, {"config.product.version", 2}, {"config.product.build", 9}};

void Differ(const std::string& what, const std::string& host, const std::string& manager,
            std::vector<std::string>* lines) {
  if (host != manager)
    lines->push_back(what + ": the host has [" + host + "], the manager [" + manager + "]");
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : " ") + text;
  return all;
}

template <class Map>
typename Map::mapped_type ValueIn(const Map& map, const typename Map::key_type& key) {
  const auto found = map.find(key);
  return found == map.end() ? typename Map::mapped_type() : found->second;
}

}  // namespace

std::vector<std::string> InventoryDiff(const InventoryFacts& host, const ManagerInventory::State& manager) {
  std::vector<std::string> lines;
  std::map<std::string, bool> wanted;
  for (const auto& [mo_id, vm] : host.vms) {
    if (vm.external_id.empty()) continue;
    wanted[vm.external_id] = true;
    const auto known = manager.vms.find(vm.external_id);
    if (known == manager.vms.end()) {
      lines.push_back("VM " + vm.name + ": the manager does not know it");
      continue;
    }
    const std::string what = "VM " + vm.name + ": ";
    Differ(what + "local id", std::to_string(mo_id), known->second.local_id, &lines);
    Differ(what + "name", vm.name, ValueIn(known->second.entries, 0), &lines);
    Differ(what + "power", vm.on ? "VM_POWERED_ON" : "VM_POWERED_OFF", ValueIn(known->second.entries, 1),
           &lines);
    Differ(what + "guest", vm.guest_host, known->second.guest_host, &lines);
    for (const auto& [key, nic] : vm.vnics) {
      const std::string id = vm.external_id + "-" + std::to_string(key);
      wanted[id] = true;
      const auto vni = manager.vnis.find(id);
      if (vni == manager.vnis.end()) {
        lines.push_back(what + "the manager does not know its device " + std::to_string(key));
        continue;
      }
      Differ(what + "MAC", nic.mac, vni->second.mac, &lines);
      Differ(what + "attachment", nic.attachment, vni->second.attachment, &lines);
      Differ(what + "addresses", Joined(nic.addresses), Joined(vni->second.addresses), &lines);
    }
  }
  for (const auto& [id, vm] : manager.vms) {
    if (wanted.count(id) == 0) lines.push_back("the manager has a VM that is gone: " + id);
  }
  for (const auto& [id, vni] : manager.vnis) {
    if (wanted.count(id) == 0) lines.push_back("the manager has a device that is gone: " + id);
  }
  for (const auto& [name, key] : kHostKeys) {
    Differ(name, ValueIn(host.host.properties, name), ValueIn(manager.host, key), &lines);
  }
  for (const auto& [name, interface] : host.host.interfaces) {
    const auto known = manager.interfaces.find(name);
    if (known == manager.interfaces.end()) {
      lines.push_back("interface " + name + ": the manager does not know it");
      continue;
    }
    Differ("interface " + name + ": MAC", interface.mac, known->second.mac, &lines);
    Differ("interface " + name + ": address", interface.address, known->second.address, &lines);
    Differ("interface " + name + ": switch", interface.connected_switch, known->second.connected_switch,
           &lines);
    Differ("interface " + name + ": backing", interface.backing, known->second.backing, &lines);
    Differ("interface " + name + ": attachment", interface.attachment, known->second.attachment, &lines);
    if (interface.is_virtual != known->second.is_virtual ||
        interface.is_management != known->second.is_management)
      lines.push_back("interface " + name + ": it is another kind at the manager");
  }
  for (const auto& [name, interface] : manager.interfaces) {
    if (host.host.interfaces.count(name) == 0)
      lines.push_back("the manager has an interface that is gone: " + name);
  }
  return lines;
}

}  // namespace zem::sim
