#include "app/ctxteng/guest/guest_table.h"

#include <mutex>
#include <utility>

#include "framework/log/log.h"
#include "platform/metrics/process_metrics.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

// The event bits of the library's connection types.
constexpr std::array<uint64_t, 6> kConnectionBits = {0x48, 0x10, 0x120, 0x2, 0x4, 0x80};

}  // namespace

std::string MaskText(uint64_t mask) {
  std::string text;
  for (int bit = 11; bit >= 0; --bit) text += (mask >> bit & 1) != 0 ? '1' : '0';
  return text;
}

void GuestTable::Add(const Record& vm) {
  Record old;
  {
    Live& live = LiveOf(vm.get());
    const std::unique_lock lock(live.mutex);
    live.records[vm.get()] = vm;
  }
  {
    const Locks::ScopedLock lock(mutex_);
    Record& entry = power_on_vm_map_[vm->vc_uuid];
    old = std::exchange(entry, vm);
    CountLocked();
  }
  if (old == nullptr) return;
  ZLOG_INFO(
      "CtxtCore: Found an existing power-on VM entry for VCUUID: %s, BiosUUID: %s, gcfPath: %s. Deleting it",
      old->vc_uuid.c_str(), old->bios_uuid.c_str(), old->gcf_path.c_str());
  ++vm->vm_events;
}

GuestTable::Record GuestTable::Resolve(const void* data) const {
  if (data == nullptr) return nullptr;
  const Live& live = LiveOf(data);
  const std::shared_lock lock(live.mutex);
  const auto found = live.records.find(data);
  return found == live.records.end() ? nullptr : found->second;
}

bool GuestTable::Remove(const Record& vm) {
  {
    Live& live = LiveOf(vm.get());
    const std::unique_lock lock(live.mutex);
    live.records.erase(vm.get());
  }
  {
    const Locks::ScopedLock lock(mutex_);
    const auto found = power_on_vm_map_.find(vm->vc_uuid);
    if (found != power_on_vm_map_.end() && found->second == vm) {
      power_on_vm_map_.erase(found);
      CountLocked();
      return true;
    }
  }
  ZLOG_INFO("CtxtCore: Did not find power-on VM entry for VCUUID: %s, BiosUUID: %s, gcfPath: %s",
            vm->vc_uuid.c_str(), vm->bios_uuid.c_str(), vm->gcf_path.c_str());
  return false;
}

void GuestTable::CountLocked() const {
  static zem::metrics::Gauge& guests = zem::metrics::GaugeOf(zem::metrics::MetricId::kGuests);
  guests.Set(static_cast<int64_t>(power_on_vm_map_.size()));
}

void GuestTable::Clear() {
  {
    const Locks::ScopedLock lock(mutex_);
    power_on_vm_map_.clear();
    CountLocked();
  }
  for (Live& live : live_) {
    const std::unique_lock lock(live.mutex);
    live.records.clear();
  }
}

GuestTable::Record GuestTable::Find(const std::string& vc_uuid) const {
  const Locks::ScopedLock lock(mutex_);
  const auto found = power_on_vm_map_.find(vc_uuid);
  return found == power_on_vm_map_.end() ? nullptr : found->second;
}

std::vector<GuestTable::Record> GuestTable::All() const {
  const Locks::ScopedLock lock(mutex_);
  std::vector<Record> all;
  all.reserve(power_on_vm_map_.size());
  for (const auto& [key, vm] : power_on_vm_map_) all.push_back(vm);
  return all;
}

void GuestTable::SetMaskLocked(VmData& vm, VmData::EventMask& mask, uint64_t value) {
  mask.mask = value;
  mask.dirty = 1;
  ++vm.mask_generation;
}

void GuestTable::SetProtocolMask(uint64_t mask) {
  const Locks::ScopedLock lock(mutex_);
  protocol_mask_ = mask;
  for (const auto& [key, vm] : power_on_vm_map_) {
    for (VmData::EventMask* const events : vm->Masks())
      SetMaskLocked(*vm, *events, (events->mask & ~kProtocolBits) | mask);
  }
}

void GuestTable::SetEventMask(const std::string& vc_uuid, uint32_t client_type, uint64_t mask) {
  SetEventMaskOf(vc_uuid, client_type, mask);
}

void GuestTable::SetEventMask(const std::string& vc_uuid, uint32_t client_type,
                              const std::atomic<uint64_t>& mask) {
  SetEventMaskOf(vc_uuid, client_type, mask);
}

template <class Mask>
void GuestTable::SetEventMaskOf(const std::string& vc_uuid, uint32_t client_type, const Mask& mask) {
  bool known = false;
  bool valid = false;
  {
    const Locks::ScopedLock lock(mutex_);
    const auto found = power_on_vm_map_.find(vc_uuid);
    known = found != power_on_vm_map_.end();
    VmData::EventMask* const events = known ? found->second->MaskOf(client_type) : nullptr;
    valid = events != nullptr;
    if (valid) SetMaskLocked(*found->second, *events, mask | protocol_mask_);
  }
  if (!known) {
    ZLOG_INFO("CtxtCore: Entry not found for VM %s in powerOnVmMap, returning", vc_uuid.c_str());
  } else if (!valid) {
    ZLOG_ERROR("ERR_CTXT_INVALID_CLIENT_TYPE",
               "CtxtCore: Invalid client type, failed to set event mask %s for vmId %s",
               MaskText(mask).c_str(), vc_uuid.c_str());
  }
}

void GuestTable::SetEventMaskForAllVms(uint32_t client_type, uint64_t mask) {
  if (VmData().MaskOf(client_type) == nullptr) {
    ZLOG_ERROR("ERR_CTXT_INVALID_CLIENT_TYPE",
               "CtxtCore: Invalid client type, failed to set event mask %s for vmId %s",
               MaskText(mask).c_str(), "all");
    return;
  }
  const Locks::ScopedLock lock(mutex_);
  for (const auto& [key, vm] : power_on_vm_map_)
    SetMaskLocked(*vm, *vm->MaskOf(client_type), mask | protocol_mask_);
}

bool GuestTable::IsNetworkEventEnabled(VmData& vm, uint32_t client_type, uint32_t connection_type) {
  bool enabled = false;
  if (client_type == kZemiClient) {
    // Protocol bits alone are no wish for events.
    enabled = (vm.zemi_event_mask.mask & ~kProtocolBits) != 0;
  } else if (VmData::EventMask* const events = vm.MaskOf(client_type);
             events != nullptr && connection_type < kConnectionBits.size()) {
    enabled = (events->mask & kConnectionBits[connection_type]) != 0;
  }
  if (enabled) {
    ZLOG_DEBUG("CtxtCore: Network event is enabled for VM %s, client  %d", vm.vc_uuid.c_str(),
               static_cast<int>(client_type));
  } else {
    ZLOG_DEBUG("CtxtCore: Network event is disabled for VM %s, client  %d", vm.vc_uuid.c_str(),
               static_cast<int>(client_type));
  }
  return enabled;
}

bool GuestTable::IsClientEnabled(VmData& vm, uint32_t client_type) {
  const VmData::EventMask* const events = vm.MaskOf(client_type);
  return events != nullptr && (events->mask & ~kProtocolBits) != 0;
}

bool GuestTable::IsNetworkEventEnabled(const std::string& vc_uuid, uint32_t client_type,
                                       uint32_t connection_type) const {
  const Record vm = Find(vc_uuid);
  if (vm == nullptr) {
    ZLOG_DEBUG("CtxtCore: No entry found for VM: %s, ret: false", vc_uuid.c_str());
    return false;
  }
  return IsNetworkEventEnabled(*vm, client_type, connection_type);
}

bool GuestTable::IsClientEnabled(const std::string& vc_uuid, uint32_t client_type) const {
  const Record vm = Find(vc_uuid);
  if (vm == nullptr) {
    ZLOG_DEBUG("CtxtCore: No entry found for VM: %s, ret: false", vc_uuid.c_str());
    return false;
  }
  return IsClientEnabled(*vm, client_type);
}

std::optional<GuestTable::DirtyMask> GuestTable::GetEventMaskIfDirty(const std::string& vc_uuid) const {
  const Locks::ScopedLock lock(mutex_);
  const auto found = power_on_vm_map_.find(vc_uuid);
  if (found == power_on_vm_map_.end()) return std::nullopt;
  VmData& vm = *found->second;
  DirtyMask result{0, vm.mask_generation};
  bool dirty = false;
  for (const VmData::EventMask* const events : vm.Masks()) {
    result.mask |= events->mask;
    dirty |= events->dirty != 0;
  }
  return dirty ? std::optional(result) : std::nullopt;
}

void GuestTable::ResetDirtyBits(const std::string& vc_uuid, uint64_t generation) {
  const Locks::ScopedLock lock(mutex_);
  const auto found = power_on_vm_map_.find(vc_uuid);
  if (found == power_on_vm_map_.end() || found->second->mask_generation != generation) return;
  for (VmData::EventMask* const events : found->second->Masks()) events->dirty = 0;
}

}  // namespace Ctxt
