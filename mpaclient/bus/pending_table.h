#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/core/clock.h"
#include "platform/provider/timer.h"

namespace zem {

/// A bounded table of entries that wait for an answer, aged by a timer that repeats every 2 seconds.  An
/// entry that is `age_limit` old at a tick goes to the expiry callback, the oldest first; an entry that is
/// taken does not expire.
///
/// Threads: all operations from any thread.  The expiry callback runs on the provider's thread with no lock
/// held.
/// Ownership: the table must be stopped before the objects that the callback uses are destroyed; Stop waits
/// for a tick that is running.
template <class Key, class Value, class Hash = std::hash<Key>>
class PendingTable {
 public:
  static constexpr Duration kTick = std::chrono::seconds(2);

  enum class Inserted { kYes, kFull, kDuplicate };

  using Expired = std::function<void(const Key& key, Value value)>;

  PendingTable(size_t capacity, Duration age_limit, Expired expired)
      : capacity_(capacity), age_limit_(age_limit), expired_(std::move(expired)) {}
  ~PendingTable() { Stop(); }
  PendingTable(const PendingTable&) = delete;
  PendingTable& operator=(const PendingTable&) = delete;

  /// Starts the timer.  Entries that were inserted before expire as well.
  void Start(TimerFactory& timers) {
    ticker_ = std::make_shared<Ticker>(this);
    timer_ = timers.ScheduleRepeated(
        kTick, [ticker = ticker_] { ticker->Tick(); }, TimerOptions::Default);
  }

  /// Stops the timer; the entries stay.  Not to be called from the expiry callback.
  void Stop() {
    if (timer_ == nullptr) return;
    timer_->Cancel();
    ticker_->Detach();
    timer_ = nullptr;
  }

  /// `value` is moved from only when the result is kYes.
  [[nodiscard]] Inserted Insert(const Key& key, Value&& value) {
    std::lock_guard lock(mutex_);
    if (entries_.contains(key)) return Inserted::kDuplicate;
    if (entries_.size() >= capacity_) {
      ++refused_;
      return Inserted::kFull;
    }
    entries_.emplace(key, Entry{Clock::Process().Now(), std::move(value)});
    return Inserted::kYes;
  }

  /// Removes the entry and returns its value; nothing when there is none.
  std::optional<Value> Take(const Key& key) {
    std::lock_guard lock(mutex_);
    auto node = entries_.extract(key);
    if (node.empty()) return std::nullopt;
    return std::move(node.mapped().value);
  }

  /// Removes all entries without calling the callback.
  void Clear() {
    std::unordered_map<Key, Entry, Hash> entries;
    std::lock_guard lock(mutex_);
    entries.swap(entries_);
  }

  size_t size() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
  }

  /// The number of insertions that were refused because the table was full.
  size_t refused() const {
    std::lock_guard lock(mutex_);
    return refused_;
  }

 private:
  struct Entry {
    TimePoint created;
    Value value;
  };

  // Outlives the table, because a timer that is cancelled may be running.
  class Ticker {
   public:
    explicit Ticker(PendingTable* table) : table_(table) {}
    void Tick() {
      std::lock_guard lock(mutex_);
      if (table_ != nullptr) table_->Expire();
    }
    void Detach() {
      std::lock_guard lock(mutex_);
      table_ = nullptr;
    }

   private:
    std::mutex mutex_;  // held while a tick runs
    PendingTable* table_;
  };

  void Expire() {
    std::vector<std::pair<Key, Entry>> old;
    {
      std::lock_guard lock(mutex_);
      if (entries_.empty()) return;
      const TimePoint now = Clock::Process().Now();
      for (auto entry = entries_.begin(); entry != entries_.end();) {
        if (now - entry->second.created < age_limit_) {
          ++entry;
          continue;
        }
        old.emplace_back(entry->first, std::move(entry->second));
        entry = entries_.erase(entry);
      }
    }
    std::stable_sort(old.begin(), old.end(),
                     [](const auto& a, const auto& b) { return a.second.created < b.second.created; });
    for (auto& [key, entry] : old) expired_(key, std::move(entry.value));
  }

  const size_t capacity_;
  const Duration age_limit_;
  const Expired expired_;
  std::shared_ptr<Ticker> ticker_;
  std::shared_ptr<Timer> timer_;
  mutable std::mutex mutex_;  // guards all below
  std::unordered_map<Key, Entry, Hash> entries_;
  size_t refused_ = 0;
};

}  // namespace zem
