#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "app/ctxteng/base/locks.h"
#include "app/ctxteng/base/vm_data.h"

namespace Ctxt {

inline constexpr uint64_t kProtocolBits = 0xE00;  // TCP 0x200, UDP 0x400, ICMP 0x800

/// Twelve characters of '0' and '1', the most significant bit first.
std::string MaskText(uint64_t mask);

/// The guests that are on, and which of their events each client wants.
///
/// The library keeps plain pointers to the records.  A record therefore stays alive, also when another one of
/// the same guest has taken its place, until the library has announced the power-off with that pointer.
///
/// Threads: all operations from any thread; what asks for a record's masks takes no lock.
class GuestTable {
 public:
  using Record = std::shared_ptr<VmData>;

  /// Enters a guest; a record with the same key goes out of the table, but is still known to `Resolve`.
  void Add(const Record& vm);
  /// The record behind the library's pointer, null when it is none.
  Record Resolve(const void* data) const;
  /// The library will not hand out this pointer any more.  False, after a log line, when the table has
  /// another record of the guest, or none.
  bool Remove(const Record& vm);
  void Clear();
  Record Find(const std::string& vc_uuid) const;
  std::vector<Record> All() const;

  uint64_t GetProtocolMask() const { return protocol_mask_; }
  void SetProtocolMask(uint64_t mask);
  void SetEventMask(const std::string& vc_uuid, uint32_t client_type, uint64_t mask);
  /// The same with what a client wants at the moment in which the table is changed: the wish may change while
  /// a guest comes, and whichever of the two is second then sets the newer mask.
  void SetEventMask(const std::string& vc_uuid, uint32_t client_type, const std::atomic<uint64_t>& mask);
  void SetEventMaskForAllVms(uint32_t client_type, uint64_t mask);

  static bool IsNetworkEventEnabled(VmData& vm, uint32_t client_type, uint32_t connection_type);
  static bool IsClientEnabled(VmData& vm, uint32_t client_type);
  bool IsNetworkEventEnabled(const std::string& vc_uuid, uint32_t client_type,
                             uint32_t connection_type) const;
  bool IsClientEnabled(const std::string& vc_uuid, uint32_t client_type) const;

  /// A mask that the library does not have yet, and which change of the masks it comes from.
  struct DirtyMask {
    uint64_t mask;
    uint64_t generation;
  };
  /// Nothing when the guest is unknown or the library has its mask.
  std::optional<DirtyMask> GetEventMaskIfDirty(const std::string& vc_uuid) const;
  /// The library has the mask of that generation; a later change stays dirty.
  void ResetDirtyBits(const std::string& vc_uuid, uint64_t generation);

 private:
  // Pointers are looked up for every event, by several threads: each part has a lock of its own.
  struct Live {
    mutable std::shared_mutex mutex;
    std::unordered_map<const void*, Record> records;
  };
  static constexpr size_t kParts = 16;

  Live& LiveOf(const void* data) {
    return live_[reinterpret_cast<uintptr_t>(data) / alignof(VmData) % kParts];
  }
  const Live& LiveOf(const void* data) const { return const_cast<GuestTable*>(this)->LiveOf(data); }
  template <class Mask>
  void SetEventMaskOf(const std::string& vc_uuid, uint32_t client_type, const Mask& mask);
  void CountLocked() const;
  void SetMaskLocked(VmData& vm, VmData::EventMask& mask, uint64_t value);

  mutable Locks::Mutex mutex_;  // guards power_on_vm_map_ and every change of a mask
  std::unordered_map<std::string, Record> power_on_vm_map_;
  std::atomic<uint64_t> protocol_mask_{kProtocolBits};
  std::array<Live, kParts> live_;
};

}  // namespace Ctxt
