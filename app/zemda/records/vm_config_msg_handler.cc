#include "app/zemda/records/vm_config_msg_handler.h"

#include <map>
#include <string>
#include <utility>

#include "covedbclient/codec/address_codec.h"
#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "proto/base/base.pb.h"
#include "proto/covedb/inventory_objects.pb.h"
#include "proto/covedb/object_type.pb.h"
#include "proto/ida/ida.pb.h"

namespace ZemDa {
namespace {

namespace ida = orlane::zem::ida;
using orlane::zem::covedb::VmConfigMsg;

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr int kFullSync = 0;
constexpr int kUpdate = 1;

std::optional<std::string> KeyOf(const std::string& object) {
  VmConfigMsg vm;
  if (!vm.ParseFromString(object)) return std::nullopt;
  return vm.id();
}

constexpr RecordKind kKind{.type = orlane::zem::covedb::VM_CONFIG,
                           .key_of = &KeyOf,
                           .timed_out = "GET VmConfigMsg timed out.",
                           .refused = "GET VmConfigMsg request failed.",
                           .tag = "MPAERRMSG_CLOUD_INVALID_VMCONFIG",
                           .older = "Older callback received: %d, current: %d.",
                           .bad_status = "Error reading VmConfigMsg",
                           .unreadable = "Invalid VmConfigMsg received from CoveDB",
                           .added = nullptr};

// A text that is no uuid leaves the field as it is.
template <class Mutable>
void SetUuidField(const std::string& text, const Mutable& field) {
  if (const auto uuid = zem::ParseUuid(text)) zem::SetUuid(*uuid, field());
}

// Over `vm`, whose other fields stay; what the identifiers leave empty stays, too.  False without an id.
bool Convert(const ida::VirtualMachineMsg& machine, VmConfigMsg* vm) {
  if (!machine.has_vm_identifier()) return false;
  const ida::VmIdentifierMsg& identifiers = machine.vm_identifier();
  if (identifiers.qub_identifier_entry().empty() && identifiers.vm_identifier_entry().empty()) return false;
  std::string id;
  for (const auto& entry : identifiers.qub_identifier_entry()) {
    if (entry.value().empty()) continue;
    switch (entry.key()) {
      case ida::QUB_IDENTIFIER_HOST_LOCAL_ID:
        id = entry.value();
        break;
      case ida::QUB_IDENTIFIER_UUID:
        SetUuidField(entry.value(), [vm] { return vm->mutable_bios_uuid(); });
        break;
      case ida::QUB_IDENTIFIER_INSTANCE_UUID:
        SetUuidField(entry.value(), [vm] { return vm->mutable_instance_uuid(); });
        break;
      default:
        break;
    }
  }
  for (const auto& entry : identifiers.vm_identifier_entry()) {
    if (entry.key() == ida::VM_IDENTIFIER_EXTERNAL_ID && !entry.value().empty())
      vm->set_external_id(entry.value());
  }
  if (id.empty()) return false;
  vm->set_id(id);
  return true;
}

bool Leaves(const ida::InventoryObjectMsg& object) {
  return object.operation() == ida::InventoryObjectMsg::LEAVE;
}

}  // namespace

VmConfigMsgHandler::VmConfigMsgHandler(std::shared_ptr<CoveDBConnectionHandler> store,
                                       Interruption* interruption)
    : records_(std::move(store), kKind, interruption) {}

struct VmConfigMsgHandler::WriteTexts {
  const char* no_id;
  const char* begin;
  const char* line;
  void (StoreRecords::*write)(const std::string& key, std::string object);
};

constexpr VmConfigMsgHandler::WriteTexts VmConfigMsgHandler::kModify = {
    "Modify() received a vmConfig with NO id set. Aborting call", "Modify VM with id %s in CoveDB",
    "Writing vmconfig msg in CoveDB id : %s  external id : %s", &StoreRecords::Put};
constexpr VmConfigMsgHandler::WriteTexts VmConfigMsgHandler::kDelete = {
    "Delete() received a vmConfig with NO id set. Aborting call", "Delete VM with id %s in CoveDB",
    "Deleting vmconfig msg in CoveDB id : %s  external id : %s", &StoreRecords::Delete};

void VmConfigMsgHandler::Modify(const VmConfigMsg& vm) { Write(kModify, vm); }
void VmConfigMsgHandler::Delete(const VmConfigMsg& vm) { Write(kDelete, vm); }

void VmConfigMsgHandler::Write(const WriteTexts& texts, const VmConfigMsg& vm) {
  if (vm.id().empty()) {
    ZLOG_ERROR("MPA24001", "%s", texts.no_id);
    return;
  }
  ZLOG_DEBUG(texts.begin, vm.id().c_str());
  ZLOG_INFO(texts.line, vm.id().c_str(), vm.external_id().c_str());
  (records_.*texts.write)(vm.id(), vm.SerializeAsString());
}

bool VmConfigMsgHandler::Get(const VmConfigMsg& vm, std::vector<VmConfigMsg>* found) {
  VmConfigMsg wanted;
  if (!vm.id().empty()) wanted.set_id(vm.id());
  const auto objects = records_.Read(vm.id(), wanted.SerializeAsString());
  if (!objects) return false;
  found->clear();
  for (const std::string& object : *objects) {
    if (!found->emplace_back().ParseFromString(object)) found->pop_back();
  }
  return true;
}

void VmConfigMsgHandler::process(const IdaMsg& message) {
  if (message.message_type() == kUpdate) ProcessUpdate(message);
  if (message.message_type() == kFullSync) ProcessFullSync(message);
}

void VmConfigMsgHandler::ProcessUpdate(const IdaMsg& message) {
  for (const auto& object : message.inventory_object()) {
    if (!object.has_virtual_machine()) continue;
    VmConfigMsg vm;
    if (!Convert(object.virtual_machine(), &vm)) {
      ZLOG_ERROR("MPA24001", "Unable to parse VmConfigMsg");
      continue;
    }
    if (Leaves(object)) {
      Delete(vm);
      continue;
    }
    std::vector<VmConfigMsg> stored;
    if (!Get(vm, &stored)) ZLOG_ERROR("MPA24002", "Error in fetching VM from CoveDB");
    if (!stored.empty()) {
      vm = stored.front();
      static_cast<void>(Convert(object.virtual_machine(), &vm));  // as before
    }
    Modify(vm);
  }
}

void VmConfigMsgHandler::ProcessFullSync(const IdaMsg& message) {
  std::vector<VmConfigMsg> found;
  if (!Get(VmConfigMsg(), &found)) ZLOG_ERROR("MPA24002", "Error in fetching VMs from CoveDB");
  ZLOG_DEBUG("%d VMs found in CoveDB", static_cast<int>(found.size()));
  std::map<std::string, VmConfigMsg> stored;
  for (VmConfigMsg& vm : found) stored[vm.id()] = std::move(vm);
  std::map<std::string, VmConfigMsg> to_delete;
  std::map<std::string, VmConfigMsg> to_modify;
  for (const auto& object : message.inventory_object()) {
    if (!object.has_virtual_machine()) continue;
    VmConfigMsg vm;
    if (!Convert(object.virtual_machine(), &vm)) {
      ZLOG_ERROR("MPA24001", "Unable to parse VmConfigMsg");
      continue;
    }
    // A VM that waited for its external id may come and go in one message; the last says what it is.
    if (Leaves(object)) {
      to_modify.erase(vm.id());
      to_delete[vm.id()] = std::move(vm);
      continue;
    }
    to_delete.erase(vm.id());
    if (const auto known = stored.find(vm.id()); known != stored.end()) {
      vm = known->second;
      static_cast<void>(Convert(object.virtual_machine(), &vm));  // as before
    }
    to_modify[vm.id()] = std::move(vm);
  }
  for (auto& [id, vm] : stored) {
    if (to_modify.count(id) == 0) to_delete.emplace(id, std::move(vm));
  }
  ZLOG_DEBUG("Delete %d vms as part of full sync", static_cast<int>(to_delete.size()));
  for (const auto& [id, vm] : to_delete) Delete(vm);
  ZLOG_DEBUG("Modify %d vms as part of full sync", static_cast<int>(to_modify.size()));
  for (const auto& [id, vm] : to_modify) Modify(vm);
}

}  // namespace ZemDa
