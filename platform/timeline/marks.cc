#include "platform/timeline/marks.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>

// A kill can come between any two stores, so a mark counts only while its seal is its number: the seal is
// written last and taken away first, and a key counts with the length that is written behind it.  The order
// of the stores is all that it takes, because the memory stays the machine's own: what a process has stored
// is there when it is gone.

namespace zem::timeline {
namespace {

constexpr std::array<char, 8> kMagic = {'z', 'e', 'm', '-', 'o', 'p', 's', '1'};
constexpr size_t kLongestText = 128;                  // as the keys of an operation
constexpr int64_t kLatest = 253'402'300'800'000'000;  // year 10000 in microseconds
constexpr const char* kError =
    "the daemon ended while this was under way (a stop, a kill or a crash); how far it came is not known";

struct Header {
  std::array<char, 8> magic;
  uint32_t slots;
  uint32_t slot_bytes;
  int64_t alive_us;
};

int64_t Micros(WallTime time) {
  return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}

}  // namespace

struct MarkSlot {
  uint64_t seal;  // the number, or 0
  uint64_t number;
  int64_t begun_us;
  uint32_t kind;
  uint32_t used;  // of the texts: each has its length in front, the first is what the operation is
  std::array<char, MarkTable::kSlotBytes - 32> texts;
};
static_assert(sizeof(MarkSlot) == MarkTable::kSlotBytes && std::is_trivially_copyable_v<MarkSlot>);
static_assert(sizeof(Header) <= MarkTable::kSlotBytes);
static_assert(std::atomic_ref<uint64_t>::is_always_lock_free);

namespace {

// False when there is no room for the text.
bool Append(MarkSlot* slot, std::string_view text) {
  text = text.substr(0, kLongestText);
  const size_t used = slot->used;
  if (used + 1 + text.size() > slot->texts.size()) return false;
  slot->texts[used] = static_cast<char>(text.size());
  text.copy(&slot->texts[used + 1], text.size());
  std::atomic_ref(slot->used).store(static_cast<uint32_t>(used + 1 + text.size()), std::memory_order_release);
  return true;
}

// Nothing when the slot's bytes were not written by Take and AddKey.
std::optional<OperationReading> ReadSlot(const MarkSlot& slot, int64_t alive_us) {
  if (slot.seal != slot.number || slot.kind >= kKinds || slot.used > slot.texts.size()) return std::nullopt;
  if (slot.begun_us < 0 || slot.begun_us > kLatest) return std::nullopt;
  OperationReading reading;
  reading.number = slot.number;
  reading.kind = KindName(static_cast<Kind>(slot.kind));
  reading.begun = WallTime(std::chrono::microseconds(slot.begun_us));
  reading.duration_us = std::max<int64_t>(0, std::clamp<int64_t>(alive_us, 0, kLatest) - slot.begun_us);
  reading.state = State::kFailed;
  reading.error = kError;
  reading.earlier_life = true;
  const std::string_view texts(slot.texts.data(), slot.used);
  size_t at = 0;
  for (bool first = true; at < texts.size(); first = false) {
    const size_t length = static_cast<unsigned char>(texts[at]);
    if (length > kLongestText || at + 1 + length > texts.size()) return std::nullopt;
    const std::string_view text = texts.substr(at + 1, length);
    if (first) {
      reading.what = text;
    } else {
      reading.keys.emplace_back(text);
    }
    at += 1 + length;
  }
  return reading;
}

}  // namespace

MarkTable::MarkTable(std::shared_ptr<std::byte> memory) : memory_(std::move(memory)) {
  for (size_t i = 0; i < kSlots; ++i) new (memory_.get() + (1 + i) * kSlotBytes) MarkSlot{};
  new (memory_.get()) Header{kMagic, kSlots, kSlotBytes, 0};
}

MarkSlot* MarkTable::SlotAt(size_t index) const {
  return std::launder(reinterpret_cast<MarkSlot*>(memory_.get() + (1 + index) * kSlotBytes));
}

// The lowest free one: few pages of the memory are in use.
MarkSlot* MarkTable::Take(uint64_t number, Kind kind, WallTime begun, std::string_view what) {
  for (size_t word = 0; word < used_.size(); ++word) {
    uint64_t bits = used_[word].load(std::memory_order_relaxed);
    while (~bits != 0) {
      const int bit = std::countr_one(bits);
      const uint64_t mask = uint64_t{1} << bit;
      bits = used_[word].fetch_or(mask, std::memory_order_acquire);
      if ((bits & mask) != 0) continue;
      MarkSlot* const slot = SlotAt(word * kWordBits + static_cast<size_t>(bit));
      slot->number = number;
      slot->begun_us = Micros(begun);
      slot->kind = static_cast<uint32_t>(kind);
      slot->used = 0;
      static_cast<void>(Append(slot, what));
      std::atomic_ref(slot->seal).store(number, std::memory_order_release);
      return slot;
    }
  }
  return nullptr;
}

void MarkTable::AddKey(MarkSlot* slot, std::string_view key) { static_cast<void>(Append(slot, key)); }

void MarkTable::Free(MarkSlot* slot) {
  std::atomic_ref(slot->seal).store(0, std::memory_order_relaxed);
  const size_t index =
      static_cast<size_t>(reinterpret_cast<std::byte*>(slot) - memory_.get()) / kSlotBytes - 1;
  used_[index / kWordBits].fetch_and(~(uint64_t{1} << (index % kWordBits)), std::memory_order_release);
}

void MarkTable::Alive(WallTime now) {
  auto* const header = std::launder(reinterpret_cast<Header*>(memory_.get()));
  std::atomic_ref(header->alive_us).store(Micros(now), std::memory_order_relaxed);
}

std::optional<std::vector<OperationReading>> MarkTable::Read(std::span<const std::byte> bytes,
                                                             size_t* damaged) {
  *damaged = 0;
  Header header{};
  if (bytes.size() != kBytes) return std::nullopt;
  std::memcpy(&header, bytes.data(), sizeof(header));
  if (header.magic != kMagic || header.slots != kSlots || header.slot_bytes != kSlotBytes) {
    return std::nullopt;
  }
  std::vector<OperationReading> marked;
  for (size_t i = 0; i < kSlots; ++i) {
    MarkSlot slot;
    std::memcpy(&slot, &bytes[(1 + i) * kSlotBytes], sizeof(slot));
    if (slot.seal == 0) continue;
    if (auto reading = ReadSlot(slot, header.alive_us)) {
      marked.push_back(std::move(*reading));
    } else {
      ++*damaged;
    }
  }
  std::sort(marked.begin(), marked.end(),
            [](const OperationReading& a, const OperationReading& b) { return a.number < b.number; });
  return marked;
}

}  // namespace zem::timeline
