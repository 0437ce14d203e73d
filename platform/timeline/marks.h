#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/timeline/operation.h"

namespace zem::timeline {

struct MarkSlot;

/// Marks of the operations that are under way, in memory that outlives the process: which they are, not what
/// they did.  Marking takes stores into that memory and nothing else.
///
/// Threads: Take and Alive from any; what concerns one slot by one thread at a time.
/// Limits: kSlots marks, further operations go unmarked; 480 bytes of texts in a mark, keys that do not fit
/// are left out.
class MarkTable {
 public:
  static constexpr size_t kSlots = 1024;
  static constexpr size_t kSlotBytes = 512;
  static constexpr size_t kBytes = kSlotBytes * (1 + kSlots);

  /// Makes a table without marks in `memory`, which has kBytes and begins with a page.
  explicit MarkTable(std::shared_ptr<std::byte> memory);

  /// Null when no slot is free.
  MarkSlot* Take(uint64_t number, Kind kind, WallTime begun, std::string_view what);
  static void AddKey(MarkSlot* slot, std::string_view key);
  void Free(MarkSlot* slot);

  /// The process lives at `now`: what is read of the table tells that it lasted until then.
  void Alive(WallTime now);

  /// Operations that are marked in the bytes of a table, as failed ones of an earlier life; nothing when the
  /// bytes are no table.  `damaged` is how many marks make no sense.
  static std::optional<std::vector<OperationReading>> Read(std::span<const std::byte> bytes, size_t* damaged);

 private:
  static constexpr size_t kWordBits = 64;

  MarkSlot* SlotAt(size_t index) const;

  const std::shared_ptr<std::byte> memory_;
  std::array<std::atomic<uint64_t>, kSlots / kWordBits> used_{};  // a bit for each slot
};

}  // namespace zem::timeline
