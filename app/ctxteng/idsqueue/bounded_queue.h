#pragma once

#include <atomic>
#include <boost/lockfree/queue.hpp>
#include <cstdint>
#include <memory>

namespace IdsEvtEng {

/// A first-in first-out queue of owned objects that refuses what does not fit; its memory is taken once.
///
/// Threads: all operations from any thread; none of them waits or allocates.
template <class T>
class BoundedQueue {
 public:
  /// Throws std::runtime_error for more than 65534 entries: the nodes' indexes have 16 bits.
  explicit BoundedQueue(uint32_t limit) : limit_(limit), queue_(limit) {}
  ~BoundedQueue() {
    while (Pop() != nullptr) {
    }
  }
  BoundedQueue(const BoundedQueue&) = delete;
  BoundedQueue& operator=(const BoundedQueue&) = delete;

  /// Takes `object`, or leaves it with the caller when the queue is full.
  bool Push(std::unique_ptr<T>& object) {
    if (!queue_.bounded_push(object.get())) return false;
    static_cast<void>(object.release());
    count_.fetch_add(1, std::memory_order_release);
    return true;
  }

  /// Null when the queue is empty.
  std::unique_ptr<T> Pop() {
    T* object = nullptr;
    if (!queue_.pop(object)) return nullptr;
    count_.fetch_sub(1, std::memory_order_acq_rel);
    return std::unique_ptr<T>(object);
  }

  /// At most one less than there are for each push that is under way, and one more for each pop.
  uint32_t count() const {
    const auto count = static_cast<int32_t>(count_.load(std::memory_order_acquire));
    return count > 0 ? static_cast<uint32_t>(count) : 0;
  }
  uint32_t limit() const { return limit_; }

 private:
  const uint32_t limit_;
  boost::lockfree::queue<T*, boost::lockfree::fixed_sized<true>> queue_;
  std::atomic<uint32_t> count_{0};
};

}  // namespace IdsEvtEng
