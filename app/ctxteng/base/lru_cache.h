#pragma once

#include <algorithm>
#include <cstddef>
#include <list>
#include <optional>
#include <unordered_map>
#include <utility>

#include "app/ctxteng/base/locks.h"

namespace Ctxt {

/// Keeps the `capacity` values that were used last.
///
/// Threads: all operations from any thread.
template <class K, class V>
class LRUCache {
 public:
  /// A capacity of 0 counts as 1.
  explicit LRUCache(size_t capacity) : capacity_(std::max<size_t>(capacity, 1)) {}

  /// Makes `key` the one used last.
  std::optional<V> Get(const K& key) {
    const Locks::ScopedLock lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    keys_.splice(keys_.begin(), keys_, found->second.second);
    return found->second.first;
  }

  /// Replaces the value of `key`, or drops the key that was not used for the longest time when it is new and
  /// the cache is full.
  void Put(const K& key, V value) {
    const Locks::ScopedLock lock(mutex_);
    if (const auto found = values_.find(key); found != values_.end()) {
      found->second.first = std::move(value);
      keys_.splice(keys_.begin(), keys_, found->second.second);
      return;
    }
    if (values_.size() >= capacity_) {
      values_.erase(keys_.back());
      keys_.pop_back();
    }
    keys_.push_front(key);
    values_.emplace(key, std::pair(std::move(value), keys_.begin()));
  }

  /// Returns whether the key was there.
  bool Remove(const K& key) {
    const Locks::ScopedLock lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end()) return false;
    keys_.erase(found->second.second);
    values_.erase(found);
    return true;
  }

  void Clear() {
    const Locks::ScopedLock lock(mutex_);
    keys_.clear();
    values_.clear();
  }

  size_t size() const {
    const Locks::ScopedLock lock(mutex_);
    return values_.size();
  }

 private:
  const size_t capacity_;
  mutable Locks::Mutex mutex_;  // guards what follows
  std::list<K> keys_;           // the one used last is in front
  std::unordered_map<K, std::pair<V, typename std::list<K>::iterator>> values_;
};

}  // namespace Ctxt
