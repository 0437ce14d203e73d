#include "mpaclient/call_handle_map.h"

namespace zem {

bool CallHandleMap::Add(const std::string& correlation_id, Handle handle) {
  std::lock_guard lock(mutex_);
  return entries_.try_emplace(correlation_id, Entry{std::move(handle), Clock::Process().Now()}).second;
}

bool CallHandleMap::Contains(const std::string& correlation_id) const {
  std::shared_lock lock(mutex_);
  return entries_.count(correlation_id) != 0;
}

std::optional<CallHandleMap::Handle> CallHandleMap::Take(const std::string& correlation_id) {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(correlation_id);
  if (found == entries_.end()) return std::nullopt;
  std::optional<Handle> handle(std::move(found->second.handle));
  entries_.erase(found);
  return handle;
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
    dropped.push_back(std::move(entry->second.handle));
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
  return entries_.size();
}

}  // namespace zem
