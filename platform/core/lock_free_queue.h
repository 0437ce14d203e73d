#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <type_traits>

namespace zem {

/// A queue of small values, first in, first out, that no thread ever waits in.
///
/// The list of Michael and Scott over a fixed pool of nodes.  Links are a node's number and a tag that grows
/// with every change, so that a thread which was held up in the middle of an operation finds out that its
/// node has had another life meanwhile.
///
/// Threads: all operations from any thread.
/// Limits: `capacity` values; the pool is allocated by the constructor, nothing is later.
template <class T>
class LockFreeQueue {
  static_assert(std::is_trivially_copyable_v<T> && std::atomic<T>::is_always_lock_free);

 public:
  /// `capacity` is below 2^32 - 2.
  explicit LockFreeQueue(uint32_t capacity) : nodes_(std::make_unique<Node[]>(size_t{capacity} + 1)) {
    for (uint32_t i = capacity; i > 0; --i) Free(i);
    nodes_[0].next = LinkOf(0, kNone);
    head_ = tail_ = LinkOf(0, 0);
  }
  LockFreeQueue(const LockFreeQueue&) = delete;
  LockFreeQueue& operator=(const LockFreeQueue&) = delete;

  /// False when the queue is full.
  [[nodiscard]] bool Push(T value) {
    const uint32_t mine = Allocate();
    if (mine == kNone) return false;
    Node& node = nodes_[mine];
    node.value.store(value, std::memory_order_relaxed);
    node.next.store(LinkOf(TagOf(node.next) + 1, kNone), std::memory_order_relaxed);
    for (;;) {
      uint64_t tail = tail_;
      std::atomic<uint64_t>& last = nodes_[IndexOf(tail)].next;
      uint64_t next = last;
      if (tail != tail_) continue;
      if (IndexOf(next) != kNone) {
        Advance(tail_, tail, IndexOf(next));
      } else if (last.compare_exchange_weak(next, LinkOf(TagOf(next) + 1, mine))) {
        Advance(tail_, tail, mine);
        return true;
      }
    }
  }

  /// False when the queue is empty.
  [[nodiscard]] bool Pop(T* value) {
    for (;;) {
      uint64_t head = head_;
      uint64_t tail = tail_;
      const uint64_t next = nodes_[IndexOf(head)].next;
      if (head != head_) continue;
      if (IndexOf(next) == kNone) return false;
      if (IndexOf(head) == IndexOf(tail)) {
        Advance(tail_, tail, IndexOf(next));
        continue;
      }
      // Read before the node can be anybody else's; what was read is only used if it still was this one's.
      *value = nodes_[IndexOf(next)].value.load(std::memory_order_relaxed);
      if (Advance(head_, head, IndexOf(next))) {
        Free(IndexOf(head));
        return true;
      }
    }
  }

 private:
  struct Node {
    std::atomic<uint64_t> next{0};
    std::atomic<T> value{};
    std::atomic<uint32_t> next_free{0};
  };
  static constexpr uint32_t kNone = UINT32_MAX;

  static uint64_t LinkOf(uint32_t tag, uint32_t index) { return uint64_t{tag} << 32 | index; }
  static uint32_t TagOf(uint64_t link) { return static_cast<uint32_t>(link >> 32); }
  static uint32_t IndexOf(uint64_t link) { return static_cast<uint32_t>(link); }
  static bool Advance(std::atomic<uint64_t>& end, uint64_t& from, uint32_t to) {
    return end.compare_exchange_strong(from, LinkOf(TagOf(from) + 1, to));
  }

  uint32_t Allocate() {
    uint64_t top = free_;
    for (;;) {
      const uint32_t index = IndexOf(top);
      if (index == kNone) return kNone;
      const uint32_t next = nodes_[index].next_free.load(std::memory_order_relaxed);
      if (free_.compare_exchange_weak(top, LinkOf(TagOf(top) + 1, next))) return index;
    }
  }
  void Free(uint32_t index) {
    uint64_t top = free_;
    do {
      nodes_[index].next_free.store(IndexOf(top), std::memory_order_relaxed);
    } while (!free_.compare_exchange_weak(top, LinkOf(TagOf(top) + 1, index)));
  }

  // A cache line each: different threads write them.
  const std::unique_ptr<Node[]> nodes_;
  alignas(64) std::atomic<uint64_t> head_{0};  // the node before the first value
  alignas(64) std::atomic<uint64_t> tail_{0};  // the last node, or one before it
  alignas(64) std::atomic<uint64_t> free_{LinkOf(0, kNone)};
};

}  // namespace zem
