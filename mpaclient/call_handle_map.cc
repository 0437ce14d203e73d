#include "mpaclient/call_handle_map.h"

#include <algorithm>
#include <utility>

namespace zem {

std::optional<uint64_t> CallHandleMap::Add(const std::string& correlation_id, Handle handle) {
  std::lock_guard lock(mutex_);
  const auto [entry, added] = entries_.try_emplace(correlation_id);
  if (!added && !entry->second.call.ended) return std::nullopt;
  entry->second.call.handle = std::move(handle);
  entry->second.call.ended = false;
  entry->second.since = Clock::Process().Now();
  entry->second.number = ++last_number_;
  return last_number_;
}

void CallHandleMap::Ended(const std::string& correlation_id, uint64_t number) {
  Handle dropped;  // let go after the lock
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(correlation_id);
  if (found == entries_.end() || found->second.number != number) return;
  dropped = std::exchange(found->second.call.handle, {});
  found->second.call.ended = true;
}

bool CallHandleMap::Contains(const std::string& correlation_id) const {
  std::shared_lock lock(mutex_);
  const auto found = entries_.find(correlation_id);
  return found != entries_.end() && !found->second.call.ended;
}

std::optional<CallHandleMap::Call> CallHandleMap::Take(const std::string& correlation_id) {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(correlation_id);
  if (found == entries_.end()) return std::nullopt;
  std::optional<Call> call(std::in_place, std::move(found->second.call));
  entries_.erase(found);
  return call;
}

std::vector<std::string> CallHandleMap::TakeOlderThan(Duration age) {
  std::vector<std::string> stale;
  std::vector<Handle> dropped;  // let go after the lock
  const TimePoint limit = Clock::Process().Now() - age;
  std::lock_guard lock(mutex_);
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    if (entry->second.since >= limit) {
      ++entry;
      continue;
    }
    stale.push_back(entry->first);
    dropped.push_back(std::move(entry->second.call.handle));
    entry = entries_.erase(entry);
  }
  return stale;
}

void CallHandleMap::Clear() {
  std::unordered_map<std::string, Entry> dropped;
  std::lock_guard lock(mutex_);
  dropped.swap(entries_);
}

size_t CallHandleMap::size() const {
  std::shared_lock lock(mutex_);
  return static_cast<size_t>(
      std::ranges::count_if(entries_, [](const auto& entry) { return !entry.second.call.ended; }));
}

}  // namespace zem
