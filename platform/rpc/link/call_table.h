#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace zem::rpc {

/// Calls by id: open addressing with linear probing, so that a call costs no node.  Ids ascend, which spreads
/// them evenly over the slots as they are.
template <class Call>
class CallTable {
 public:
  size_t size() const { return size_; }

  /// `id` is not 0 and not in the table.
  void Insert(uint32_t id, std::shared_ptr<Call> call) {
    if ((size_ + 1) * 2 > slots_.size()) Grow();
    Place(id, std::move(call));
    ++size_;
  }

  const std::shared_ptr<Call>* Find(uint32_t id) const {
    const size_t at = Locate(id);
    return at == kNone ? nullptr : &slots_[at].call;
  }

  /// Null when there is none.
  std::shared_ptr<Call> Take(uint32_t id) {
    size_t hole = Locate(id);
    if (hole == kNone) return nullptr;
    std::shared_ptr<Call> call = std::move(slots_[hole].call);
    // What follows in the same run moves up, so that no lookup stops early at the hole.
    const size_t mask = slots_.size() - 1;
    for (size_t at = (hole + 1) & mask; slots_[at].id != 0; at = (at + 1) & mask) {
      const size_t home = Home(slots_[at].id);
      if (((at - home) & mask) >= ((at - hole) & mask)) {
        slots_[hole] = std::move(slots_[at]);
        hole = at;
      }
    }
    slots_[hole].id = 0;
    slots_[hole].call = nullptr;
    --size_;
    return call;
  }

  /// All calls in order of their ids; the table is empty then.
  std::vector<std::shared_ptr<Call>> TakeAll() {
    std::vector<Slot> taken;
    for (Slot& slot : slots_) {
      if (slot.id != 0) taken.push_back(std::move(slot));
    }
    slots_.clear();
    size_ = 0;
    std::sort(taken.begin(), taken.end(), [](const Slot& a, const Slot& b) { return a.id < b.id; });
    std::vector<std::shared_ptr<Call>> calls;
    calls.reserve(taken.size());
    for (Slot& slot : taken) calls.push_back(std::move(slot.call));
    return calls;
  }

 private:
  struct Slot {
    uint32_t id = 0;
    std::shared_ptr<Call> call;
  };
  static constexpr size_t kNone = SIZE_MAX;

  size_t Home(uint32_t id) const { return (id * 0x9E3779B1U >> 8) & (slots_.size() - 1); }

  size_t Locate(uint32_t id) const {
    if (size_ == 0) return kNone;
    const size_t mask = slots_.size() - 1;
    for (size_t at = Home(id); slots_[at].id != 0; at = (at + 1) & mask) {
      if (slots_[at].id == id) return at;
    }
    return kNone;
  }

  void Place(uint32_t id, std::shared_ptr<Call> call) {
    const size_t mask = slots_.size() - 1;
    size_t at = Home(id);
    while (slots_[at].id != 0) at = (at + 1) & mask;
    slots_[at].id = id;
    slots_[at].call = std::move(call);
  }

  void Grow() {
    std::vector<Slot> old(std::max<size_t>(8, slots_.size() * 2));
    old.swap(slots_);
    for (Slot& slot : old) {
      if (slot.id != 0) Place(slot.id, std::move(slot.call));
    }
  }

  std::vector<Slot> slots_;  // a power of two, at most half full
  size_t size_ = 0;
};

}  // namespace zem::rpc
