#pragma once

#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "platform/core/condition.h"
#include "platform/metrics/queue_gauge.h"

namespace zem {

/// A FIFO of at most `capacity` elements between threads.  Closing wakes both sides.
///
/// Threads: all operations from any thread.
template <class T>
class BoundedQueue {
 public:
  /// `name` is what operators see it under.
  BoundedQueue(std::string name, size_t capacity) : capacity_(capacity), gauge_(std::move(name), capacity) {}

  /// Waits while full.  False, with `element` untouched, when the queue is closed.
  [[nodiscard]] bool Push(T&& element) {
    std::unique_lock lock(mutex_);
    not_full_.Wait(lock, [this] { return closed_ || queue_.size() < capacity_; });
    return PushLocked(std::move(element));
  }

  /// False, with `element` untouched and counted as dropped, when full; false when closed.
  [[nodiscard]] bool TryPush(T&& element) {
    std::lock_guard lock(mutex_);
    if (!closed_ && queue_.size() >= capacity_) {
      gauge_.Refused();
      return false;
    }
    return PushLocked(std::move(element));
  }

  /// Gives back an element that could not be used, ahead of all others; the limit does not count for it.
  void PushFront(T&& element) {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    queue_.push_front(std::move(element));
    gauge_.Returned();
    not_empty_.NotifyOne();
  }

  /// Waits while empty.  Nothing when the queue is closed, even if elements are left.
  std::optional<T> Pop() {
    std::unique_lock lock(mutex_);
    not_empty_.Wait(lock, [this] { return closed_ || !queue_.empty(); });
    return PopLocked();
  }

  /// Like Pop, but gives up after `duration`.
  std::optional<T> PopFor(Duration duration) {
    std::unique_lock lock(mutex_);
    not_empty_.WaitFor(lock, duration, [this] { return closed_ || !queue_.empty(); });
    return PopLocked();
  }

  void Close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
    not_full_.NotifyAll();
    not_empty_.NotifyAll();
  }

  size_t size() const {
    std::lock_guard lock(mutex_);
    return queue_.size();
  }

  /// Elements refused by TryPush because the queue was full.
  size_t dropped() const {
    std::lock_guard lock(mutex_);
    return gauge_.Read().dropped;
  }

 private:
  bool PushLocked(T&& element) {
    if (closed_) return false;
    queue_.push_back(std::move(element));
    gauge_.Entered();
    not_empty_.NotifyOne();
    return true;
  }

  std::optional<T> PopLocked() {
    if (closed_ || queue_.empty()) return std::nullopt;
    std::optional<T> element(std::move(queue_.front()));
    queue_.pop_front();
    gauge_.Left();
    not_full_.NotifyOne();
    return element;
  }

  const size_t capacity_;
  QueueGauge gauge_;
  mutable std::mutex mutex_;  // guards all below
  Condition not_full_;
  Condition not_empty_;
  std::deque<T> queue_;
  bool closed_ = false;
};

}  // namespace zem
