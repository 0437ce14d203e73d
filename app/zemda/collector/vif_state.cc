#include "app/zemda/collector/vif_state.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <span>

#include "app/zemda/inventory/property_tables.h"
#include "app/zemda/records/vif_msg_handler.h"
#include "framework/log/log.h"
#include "proto/covedb/inventory_objects.pb.h"
#include "proto/ida/ida.pb.h"

namespace ZemDa {
namespace {

namespace ida = orlane::zem::ida;
using orlane::zem::covedb::DaVifMsg;
using Vni = ida::VirtualNetworkInterfaceMsg;

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr uint32_t kGuestSource = 0;
constexpr uint32_t kIpv4Binding = 4;
constexpr uint32_t kIpv6Binding = 7;

const char* NameOf(uint32_t key, std::span<const PropertyKey> table) {
  const auto found = std::ranges::find(table, key, &PropertyKey::key);
  return found == table.end() ? "" : found->name;
}

// The value of a property; empty, after a log line, without one.
std::string PropertyOf(const Vni& vni, ida::VniPropertyKey key) {
  const char* const name = NameOf(key, kVniProperties);
  const auto found =
      std::ranges::find_if(vni.vni_entry(), [key](const auto& entry) { return entry.key() == key; });
  if (found == vni.vni_entry().end()) {
    ZLOG_ERROR("ERR_QUB_VNIPROP_NOT_FOUND", "The VNI does not have the specified property %s", name);
    return {};
  }
  if (!found->has_value()) {
    ZLOG_ERROR("ERR_QUB_VNIPROP_NOT_FOUND", "The VNI does not have value set for the specified property %s",
               name);
  }
  return found->value();
}

std::string LocalIdOf(const ida::VmIdentifierMsg& vm) {
  const char* const name = NameOf(ida::QUB_IDENTIFIER_HOST_LOCAL_ID, kQubIdentifiers);
  const auto found = std::ranges::find_if(vm.qub_identifier_entry(), [](const auto& entry) {
    return entry.key() == ida::QUB_IDENTIFIER_HOST_LOCAL_ID;
  });
  if (found == vm.qub_identifier_entry().end()) {
    ZLOG_ERROR("ERR_QUB_VMPROP_NOT_FOUND", "The owner VM does not have the specified property %s", name);
    return {};
  }
  if (!found->has_value()) {
    ZLOG_ERROR("ERR_QUB_VMPROP_NOT_FOUND",
               "The owner VM does not have value set for the specified property %s", name);
  }
  return found->value();
}

// Also when the list is empty: the device has lost its addresses.
bool TellsAddresses(const Vni& vni) {
  return std::ranges::any_of(vni.ip_address_info(),
                             [](const auto& info) { return info.source() == kGuestSource; });
}

std::optional<uint64_t> MacOf(std::string text) {
  std::erase(text, ':');
  uint64_t mac = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), mac, 16);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return mac;
}

void AddBinding(uint64_t mac, const std::string& address, DaVifMsg* vif) {
  in_addr v4{};
  in6_addr v6{};
  const bool is_v4 = inet_pton(AF_INET, address.c_str(), &v4) == 1;
  if (!is_v4 && inet_pton(AF_INET6, address.c_str(), &v6) != 1) {
    ZLOG_WARN("The address %s of VIF [%s] is none", address.c_str(), vif->vif_id().c_str());
    return;
  }
  auto* const binding = vif->add_address_binding();
  binding->mutable_mac_address()->set_value(mac);
  if (is_v4) {
    binding->mutable_ip_address()->set_ipv4(ntohl(v4.s_addr));
  } else {
    binding->mutable_ip_address()->set_ipv6(&v6, sizeof(v6));
  }
  binding->set_binding_kind(is_v4 ? kIpv4Binding : kIpv6Binding);
}

bool AddOwner(const std::string& owner, DaVifMsg* vif) {
  if (std::ranges::find(vif->owner_vm_local_id(), owner) != vif->owner_vm_local_id().end()) return false;
  vif->add_owner_vm_local_id(owner);
  return true;
}

void SetMac(uint64_t mac, DaVifMsg* vif) {
  for (auto& binding : *vif->mutable_address_binding()) binding.mutable_mac_address()->set_value(mac);
}

}  // namespace

VifState::VifState(std::shared_ptr<CoveDBConnectionHandler> store, Interruption* interruption)
    : vifs_(std::make_unique<VifMsgHandler>(std::move(store), interruption)) {}

VifState::~VifState() = default;

VifState::Key VifState::KeyOf(const Vni& vni) {
  Key key{LocalIdOf(vni.owner_vm()), PropertyOf(vni, ida::VNI_PROPERTY_MAC_KEY)};
  ZLOG_DEBUG("Returning cache-key %s+%s : %s", key.first.c_str(), key.second.c_str(),
             (key.first + key.second).c_str());
  return key;
}

void VifState::Take(const Vni& vni, bool leaves) {
  ZLOG_DEBUG("Writing VIF to COVEDB");
  const Key key = KeyOf(vni);
  if (known_.count(key) != 0) {
    UpdateKnown(key, vni, leaves);
  } else if (leaves) {
    pending_.erase(key);
    RemoveDevice(key);
  } else {
    TakeUnknown(key, vni);
  }
  ZLOG_DEBUG("Done Writing VIF to COVEDB");
}

void VifState::RemoveDevice(const Key& key) {
  const auto devices = devices_.find(key.first);
  if (devices == devices_.end() || devices->second.erase(key.second) == 0) return;
  ZLOG_DEBUG("Removing device %s from cached devices for VM : %s", key.second.c_str(), key.first.c_str());
  if (devices->second.empty()) devices_.erase(devices);
}

void VifState::Forget(const Key& key) {
  known_.erase(key);
  RemoveDevice(key);
}

void VifState::Delete(const std::string& vif_id) {
  DaVifMsg vif;
  vif.set_vif_id(vif_id);
  vifs_->DeleteVif(vif);
}

void VifState::UpdateKnown(const Key& key, const Vni& vni, bool leaves) {
  const Known known = known_[key];
  ZLOG_DEBUG("Update on previously seen interface VIF [%s]", known.vif_id.c_str());
  if (leaves) {
    DecideDeletion(known.vif_id, key.first);
    Forget(key);
  } else if (TellsAddresses(vni)) {
    DaVifMsg vif;
    Rebuild(known, key.first, vni, &vif);
    ZLOG_INFO("Updating IP Address for existing VIF [%s] in coveDb", known.vif_id.c_str());
    vifs_->ModifyVif(vif);
  } else {
    UpdateProperties(key, vni);
  }
}

void VifState::UpdateProperties(const Key& key, const Vni& vni) {
  const auto mac = MacOf(PropertyOf(vni, ida::VNI_PROPERTY_MAC_ADDRESS));
  const std::string attachment = PropertyOf(vni, ida::VNI_PROPERTY_LPORT_ATTACHMENT_ID);
  if (!mac) return;
  Known& known = known_[key];
  known.mac = *mac;
  if (attachment.empty()) {
    ZLOG_INFO("Deleting VIF [%s] from coveDb.", known.vif_id.c_str());
    DecideDeletion(known.vif_id, key.first);
    Forget(key);
    return;
  }
  if (attachment != known.vif_id) {
    ZLOG_INFO("Deleting old VIF [%s] from coveDb to create a new one with updated lport attachment id [%s]",
              known.vif_id.c_str(), attachment.c_str());
    DecideDeletion(known.vif_id, key.first);
    known.vif_id = attachment;
    DaVifMsg vif;
    Rebuild(known, key.first, vni, &vif);
    vifs_->ModifyVif(vif);
  }
  DaVifMsg vif;
  vif.set_vif_id(known.vif_id);
  if (!vifs_->GetVif(&vif)) {
    ZLOG_ERROR("MPA21010", "Failed to get VIF [%s] from coveDb", known.vif_id.c_str());
    return;
  }
  SetMac(*mac, &vif);
  ZLOG_INFO("Updating MAC Address to %s for existing VIF [%s] in coveDb",
            PropertyOf(vni, ida::VNI_PROPERTY_MAC_ADDRESS).c_str(), known.vif_id.c_str());
  vifs_->ModifyVif(vif);
}

void VifState::TakeUnknown(const Key& key, const Vni& vni) {
  if (TellsAddresses(vni)) {
    ZLOG_INFO("Storing IP address for device id %s and waiting for VIF properties update",
              key.second.c_str());
    pending_[key] = std::make_unique<Vni>(vni);
    devices_[key.first].insert(key.second);
    return;
  }
  const std::string attachment = PropertyOf(vni, ida::VNI_PROPERTY_LPORT_ATTACHMENT_ID);
  const std::string mac_text = PropertyOf(vni, ida::VNI_PROPERTY_MAC_ADDRESS);
  const auto mac = MacOf(mac_text);
  if (attachment.empty() || !mac) return;
  const Known& known = known_[key] = {attachment, *mac};
  ZLOG_DEBUG("Cached MAC %s for VIF [%s]", mac_text.c_str(), attachment.c_str());
  devices_[key.first].insert(key.second);
  const auto pending = pending_.extract(key);
  DaVifMsg vif;
  vif.set_vif_id(attachment);
  const bool stored = vifs_->GetVif(&vif);
  if (!pending.empty()) {
    ZLOG_INFO("Got VIF properties of a previously seen VIF [%s]", attachment.c_str());
    Rebuild(known, key.first, *pending.mapped(), &vif);
  } else if (stored) {
    ZLOG_INFO(
        "CoveDb has daVifMsg already , so updating existing record with vm local id %s and lport attachment "
        "id %s",
        key.first.c_str(), attachment.c_str());
    if (AddOwner(key.first, &vif)) {
      ZLOG_INFO("Adding owner vm local id %s with same lport attachment id %s", key.first.c_str(),
                attachment.c_str());
    } else {
      ZLOG_DEBUG("Owner vm local id already exists");
    }
    SetMac(*mac, &vif);
  } else {
    ZLOG_INFO("Creating new VIF [%s] entry in CoveDb", attachment.c_str());
    Rebuild(known, key.first, vni, &vif);
  }
  vifs_->ModifyVif(vif);
}

// Keeps the owners that the store has.  Whether it has the record.
bool VifState::Rebuild(const Known& known, const std::string& owner, const Vni& vni, DaVifMsg* vif) {
  vif->Clear();
  vif->set_vif_id(known.vif_id);
  DaVifMsg stored;
  stored.set_vif_id(known.vif_id);
  const bool there = vifs_->GetVif(&stored);
  if (there) {
    for (const std::string& each : stored.owner_vm_local_id()) {
      ZLOG_DEBUG("Adding vm local id %s for vif %s", each.c_str(), known.vif_id.c_str());
      vif->add_owner_vm_local_id(each);
    }
  }
  if (AddOwner(owner, vif)) {
    ZLOG_DEBUG("Adding owner vm local id %s with same lport attachment id %s", owner.c_str(),
               known.vif_id.c_str());
  }
  for (const auto& info : vni.ip_address_info()) {
    if (info.source() != kGuestSource) continue;
    for (const std::string& address : info.address()) AddBinding(known.mac, address, vif);
  }
  return there;
}

void VifState::DecideDeletion(const std::string& vif_id, const std::string& owner) {
  DaVifMsg vif;
  vif.set_vif_id(vif_id);
  if (!vifs_->GetVif(&vif)) {
    ZLOG_INFO("No vif found - Deleting VIF [%s] from coveDb.", vif_id.c_str());
    return Delete(vif_id);
  }
  auto* const owners = vif.mutable_owner_vm_local_id();
  if (owners->empty()) {
    ZLOG_INFO("No owner vm local id found - Deleting VIF [%s] from coveDb.", vif_id.c_str());
    return Delete(vif_id);
  }
  if (owners->size() == 1) {
    if (owners->Get(0) != owner) return;
    ZLOG_INFO("Owner vm local id is matching - Deleting VIF [%s] from coveDb.", vif_id.c_str());
    return Delete(vif_id);
  }
  ZLOG_INFO("Found more than one owner vm local id - Modifying VIF [%s] from coveDb.", vif_id.c_str());
  owners->erase(std::remove(owners->begin(), owners->end(), owner), owners->end());
  vifs_->ModifyVif(vif);
}

void VifState::VmLeaves(const ida::VirtualMachineMsg& vm) {
  const std::string local_id = LocalIdOf(vm.vm_identifier());
  ZLOG_INFO("VM with host_local_id %s is leaving, clear out IPDiscovery related state", local_id.c_str());
  const auto devices = devices_.extract(local_id);
  if (devices.empty()) return;
  ZLOG_DEBUG("Found %lu cached devices for VM %s", static_cast<unsigned long>(devices.mapped().size()),
             local_id.c_str());
  for (const std::string& device : devices.mapped()) {
    const Key key{local_id, device};
    if (const auto known = known_.extract(key); !known.empty()) {
      ZLOG_INFO("Found VIF state in cache for %s:%s. Going to delete.", local_id.c_str(), device.c_str());
      DecideDeletion(known.mapped().vif_id, local_id);
    }
    if (pending_.erase(key) != 0) {
      ZLOG_INFO("Found only IP Address in cache for %s:%s. Going to delete", local_id.c_str(),
                device.c_str());
    }
  }
  ZLOG_DEBUG("Removing VM to VIFs mapping since VM %s is leaving", local_id.c_str());
}

}  // namespace ZemDa
