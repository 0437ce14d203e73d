#pragma once

#include <deque>
#include <mutex>
#include <optional>
#include <utility>

#include "app/zemda/base/queue_log.h"
#include "platform/core/condition.h"

namespace ZemDa {

/// A queue between two threads.
///
/// Threads: all operations from any thread.
/// Limits: 50000 elements; a push beyond them is refused, which is logged.
template <class T>
class SynchronizedQueue {
 public:
  static constexpr size_t kCapacity = 50000;

  /// Wakes the waiters also when the element is refused.
  bool push(T element) {
    queue_log::Pushing();
    bool pushed = false;
    size_t size = 0;
    {
      const std::lock_guard lock(mutex_);
      pushed = elements_.size() < kCapacity;
      if (pushed) elements_.push_back(std::move(element));
      size = elements_.size();
      changed_.NotifyAll();
    }
    queue_log::Pushed(pushed, size);
    return pushed;
  }

  /// The oldest element; blocks while there is none.
  T remove() {
    queue_log::Removing();
    std::unique_lock lock(mutex_);
    while (elements_.empty()) {
      queue_log::Waiting();
      changed_.Wait(lock);
    }
    return TakeLocked();
  }

  /// What `look` makes of the oldest element, without a copy of it; nothing when there is none.
  template <class Look>
  auto peek(const Look& look) const -> std::optional<decltype(look(std::declval<const T&>()))> {
    queue_log::Peeking();
    const std::lock_guard lock(mutex_);
    if (elements_.empty()) return std::nullopt;
    auto seen = look(elements_.front());
    queue_log::Peeked();
    return seen;
  }

  /// Takes the oldest element if it is as `wanted` says.  The queue may have been cleared since a look at it.
  template <class Wanted>
  std::optional<T> remove_if(const Wanted& wanted) {
    queue_log::Removing();
    const std::lock_guard lock(mutex_);
    if (elements_.empty() || !wanted(elements_.front())) return std::nullopt;
    return TakeLocked();
  }

  size_t size() const {
    queue_log::GettingSize();
    size_t size = 0;
    {
      const std::lock_guard lock(mutex_);
      size = elements_.size();
    }
    queue_log::GotSize();
    return size;
  }

  void clear() {
    queue_log::Clearing();
    std::deque<T> cleared;  // destroyed after the lock
    {
      const std::lock_guard lock(mutex_);
      cleared.swap(elements_);
    }
    queue_log::Cleared();
  }

 private:
  T TakeLocked() {
    T element = std::move(elements_.front());
    elements_.pop_front();
    queue_log::Removed(elements_.size());
    return element;
  }

  mutable std::mutex mutex_;  // guards elements_
  zem::Condition changed_;
  std::deque<T> elements_;
};

}  // namespace ZemDa
