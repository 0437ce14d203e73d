#include "app/zemda/inventory/host_records.h"

#include <algorithm>
#include <array>
#include <utility>

#include "app/zemda/inventory/property_tables.h"
#include "app/zemda/inventory/vm_records.h"
#include "proto/ida/ida.pb.h"

namespace ZemDa {
namespace {

namespace ida = orlane::zem::ida;

constexpr const char* kChanged = "Changed";

struct DpuState {
  const char* text;
  ida::DpuMsg::State state;
};
constexpr std::array kDpuStates = {
    DpuState{"MANAGED", ida::DpuMsg::MANAGED}, DpuState{"UNMANAGED", ida::DpuMsg::UNMANAGED},
    DpuState{"UNUSED", ida::DpuMsg::UNUSED}, DpuState{"UNAVAILABLE", ida::DpuMsg::UNAVAILABLE}};

void FillDpu(const QubHost::Dpu& dpu, ida::DpuMsg* message) {
  const auto value = [&](const char* name) { return ValueOf(dpu.properties, name); };
  message->set_id(dpu.id);
  message->set_firmware_version(value("host.dpu.firmwareversion"));
  message->set_model(value("host.dpu.model"));
  message->set_vendor(value("host.dpu.vendor"));
  message->set_state(ida::DpuMsg::UNKNOWN);
  const std::string state = value("host.dpu.state");
  for (const DpuState& each : kDpuStates) {
    if (state == each.text) message->set_state(each.state);
  }
  message->set_os_version(value("host.dpu.osversion"));
  message->set_is_primary(value("host.dpu.isprimary") == "True");
  message->set_dpu_alias(value("host.dpu.dpualias"));
}

// Takes over what `now` does not say.  Whether `now` says anything else than `before`.
bool MergeEntries(const ida::HostMsg& before, ida::HostMsg* now) {
  bool changed = false;
  const auto find = [](const ida::HostMsg& message, uint32_t key) {
    return std::ranges::find_if(message.host_entry(), [key](const auto& each) { return each.key() == key; });
  };
  for (const auto& entry : now->host_entry()) {
    const auto known = find(before, entry.key());
    if (known == before.host_entry().end() || known->value() != entry.value()) changed = true;
  }
  for (const auto& entry : before.host_entry()) {
    if (find(*now, entry.key()) == now->host_entry().end()) *now->add_host_entry() = entry;
  }
  return changed;
}

bool MergeInterfaces(const ida::HostMsg& before, ida::HostMsg* now) {
  if (now->interface().empty()) {
    *now->mutable_interface() = before.interface();
    return false;
  }
  if (now->interface_size() != before.interface_size()) return true;
  return std::ranges::any_of(now->interface(), [&](const ida::InterfaceMsg& each) {
    const auto known = std::ranges::find_if(
        before.interface(), [&](const ida::InterfaceMsg& other) { return other.name() == each.name(); });
    return known == before.interface().end() || known->SerializeAsString() != each.SerializeAsString();
  });
}

}  // namespace

HostRecords::HostRecords(HostTables tables)
    : tables_(std::move(tables)), told_(std::make_unique<ida::HostMsg>()) {}

HostRecords::~HostRecords() = default;

void HostRecords::Fill(const QubHost& host, ida::HostMsg* message) {
  message->set_id("");
  for (const PropertyKey& each : kHostProperties) {
    const std::string value = ValueOf(host.properties, each.name);
    if (value.empty()) continue;
    auto* const entry = message->add_host_entry();
    entry->set_key(each.key);
    entry->set_value(value == "None" ? "" : value);
  }
  if (ValueOf(host.properties, "config.network.nics") == kChanged)
    tables_.AddInterfaces(host.properties, host.management_interfaces, message);
  for (const QubHost::Dpu& dpu : host.dpus) FillDpu(dpu, message->add_dpu());
}

ida::InventoryObjectMsg HostRecords::Full(const std::string& update_type, const QubHost& host) {
  ida::InventoryObjectMsg object;
  object.set_kind(ida::InventoryObjectMsg::HOST);
  SetOperation(update_type, &object);
  ida::HostMsg* const message = object.mutable_host();
  auto* const type = message->add_host_entry();
  type->set_key(kHostTypeKey);
  type->set_value(ida::HostType_Name(ida::HOST_TYPE_QUB));
  tables_.AddCapabilities(message);
  Fill(host, message);
  *told_ = *message;
  has_told_ = true;
  return object;
}

std::optional<ida::InventoryObjectMsg> HostRecords::Update(const std::string& update_type,
                                                           const QubHost& host) {
  ida::InventoryObjectMsg object;
  object.set_kind(ida::InventoryObjectMsg::HOST);
  SetOperation(update_type, &object);
  Fill(host, object.mutable_host());
  ida::HostMsg merged = object.host();
  const bool entries = MergeEntries(*told_, &merged);
  const bool interfaces = MergeInterfaces(*told_, &merged);
  *merged.mutable_capability_entry() = told_->capability_entry();
  const bool changed = !has_told_ || entries || interfaces;
  if (changed) {
    *told_ = std::move(merged);
    has_told_ = true;
  }
  if (!changed && host.dpus.empty()) return std::nullopt;
  return object;
}

}  // namespace ZemDa
