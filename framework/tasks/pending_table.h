#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/core/clock.h"

namespace zem {

/// Requests that wait for an answer from elsewhere, by the key that the answer names.  Each entry leaves the
/// table exactly once, with its answer or by its age, and whoever takes it serves it with no lock held.
///
/// Threads: all operations from any thread.  The functions that are passed in run under the table's lock.
template <class Key, class Value, class Hash = std::hash<Key>>
class PendingTable {
 public:
  enum class Added { kAdded, kFull, kExists };

  explicit PendingTable(size_t capacity) : capacity_(capacity) {}

  /// `value` is untouched unless it was added.  A full table is found before a key that exists.
  [[nodiscard]] Added Add(const Key& key, Value&& value) {
    const TimePoint now = Clock::Process().Now();
    const std::lock_guard lock(mutex_);
    if (entries_.size() >= capacity_) return Added::kFull;
    if (entries_.contains(key)) return Added::kExists;
    entries_.emplace(key, Entry{++last_number_, now, std::move(value)});
    return Added::kAdded;
  }

  std::optional<Value> Take(const Key& key) {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(key);
    if (found == entries_.end()) return std::nullopt;
    std::optional<Value> value(std::move(found->second.value));
    entries_.erase(found);
    return value;
  }

  /// Takes the entries that have been here for `age` or longer, in the order in which they came.
  std::vector<Value> TakeOlder(Duration age) {
    const TimePoint now = Clock::Process().Now();
    std::map<uint64_t, Value> taken;
    {
      const std::lock_guard lock(mutex_);
      for (auto entry = entries_.begin(); entry != entries_.end();) {
        if (now - entry->second.since >= age) {
          taken.emplace(entry->second.number, std::move(entry->second.value));
          entry = entries_.erase(entry);
        } else {
          ++entry;
        }
      }
    }
    std::vector<Value> values;
    values.reserve(taken.size());
    for (auto& [number, value] : taken) values.push_back(std::move(value));
    return values;
  }

  /// Takes the oldest of the entries for which `wanted` is true.
  std::optional<Value> TakeFirst(const std::function<bool(const Value&)>& wanted) {
    const std::lock_guard lock(mutex_);
    auto first = entries_.end();
    for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
      const bool older = first == entries_.end() || entry->second.number < first->second.number;
      if (older && wanted(entry->second.value)) first = entry;
    }
    if (first == entries_.end()) return std::nullopt;
    std::optional<Value> value(std::move(first->second.value));
    entries_.erase(first);
    return value;
  }

  /// Changes an entry if it is still here.
  void Change(const Key& key, const std::function<void(Value&)>& change) {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(key);
    if (found != entries_.end()) change(found->second.value);
  }

  size_t size() const {
    const std::lock_guard lock(mutex_);
    return entries_.size();
  }

 private:
  struct Entry {
    uint64_t number;
    TimePoint since;
    Value value;
  };

  const size_t capacity_;
  mutable std::mutex mutex_;  // guards what follows
  std::unordered_map<Key, Entry, Hash> entries_;
  uint64_t last_number_ = 0;
};

}  // namespace zem
