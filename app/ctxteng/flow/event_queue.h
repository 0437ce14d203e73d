#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Ctxt::PaceClient {

enum class QueuePush { kDone, kFull, kFailed };

/// A bounded queue without a lock: a ring whose places carry the number of the turn for which they are free
/// or filled.  Places are counted exactly, so that the queue takes `max` values and not one more or less.
///
/// Threads: `TryPop` by one at a time, which the caller sees to; the rest from any thread.
template <class T>
class EventQueue {
 public:
  explicit EventQueue(uint32_t max)
      : max_(max), slots_(std::bit_ceil(size_t{max} + 1)), turn_mask_(slots_.size() - 1) {
    for (size_t i = 0; i < slots_.size(); ++i) slots_[i].turn.store(i, std::memory_order_relaxed);
  }
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  /// kFailed cannot happen unless the count is wrong.
  QueuePush TryPush(T value) {
    uint32_t taken = count_.load(std::memory_order_relaxed);
    do {
      if (taken >= max_) return QueuePush::kFull;
    } while (!count_.compare_exchange_weak(taken, taken + 1, std::memory_order_acquire,
                                           std::memory_order_relaxed));
    size_t at = head_.load(std::memory_order_relaxed);
    while (true) {
      Slot& slot = slots_[at & turn_mask_];
      const auto lead = static_cast<ptrdiff_t>(slot.turn.load(std::memory_order_acquire) - at);
      if (lead == 0 && head_.compare_exchange_weak(at, at + 1, std::memory_order_relaxed)) {
        slot.value = std::move(value);
        slot.turn.store(at + 1, std::memory_order_release);
        return QueuePush::kDone;
      }
      if (lead < 0) {
        count_.fetch_sub(1, std::memory_order_relaxed);
        return QueuePush::kFailed;
      }
      if (lead > 0) at = head_.load(std::memory_order_relaxed);
    }
  }

  bool TryPop(T* value) {
    Slot& slot = slots_[tail_ & turn_mask_];
    if (slot.turn.load(std::memory_order_acquire) != tail_ + 1) return false;
    *value = std::exchange(slot.value, T());
    slot.turn.store(tail_ + slots_.size(), std::memory_order_release);
    ++tail_;
    // Behind the place, which whoever is let in by the count then finds free.
    count_.fetch_sub(1, std::memory_order_release);
    return true;
  }

  /// Values that are in the queue or on their way in or out.
  uint32_t count() const { return count_.load(std::memory_order_relaxed); }
  uint32_t max() const { return max_; }

 private:
  struct Slot {
    std::atomic<size_t> turn;
    T value{};
  };

  const uint32_t max_;
  std::vector<Slot> slots_;
  const size_t turn_mask_;
  alignas(64) std::atomic<uint32_t> count_{0};
  alignas(64) std::atomic<size_t> head_{0};
  alignas(64) size_t tail_ = 0;
};

}  // namespace Ctxt::PaceClient
