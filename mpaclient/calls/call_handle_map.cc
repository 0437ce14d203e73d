#include "mpaclient/calls/call_handle_map.h"

#include <utility>
#include <vector>

#include "framework/log/log.h"

namespace zem {
namespace {

constexpr LogSource kLog{"mpa-client"};

constexpr Duration kStaleCall = std::chrono::seconds(300);

}  // namespace

std::optional<uint64_t> CallHandleMap::AddToCallHandleMap(const std::string& correlation_id, Handle handle) {
  const std::lock_guard lock(mutex_);
  const auto [entry, added] = entries_.try_emplace(correlation_id);
  if (!added && !entry->second.call.ended) {
    ZLOG_INFO("[%s] MpaClientAppSpecific AddToCallHandleMap Handle with corelationId (%s) already present",
              app_type_.c_str(), correlation_id.c_str());
    return std::nullopt;
  }
  entry->second.call.handle = std::move(handle);
  entry->second.call.ended = false;
  entry->second.since = Clock::Process().Now();
  entry->second.number = ++last_number_;
  return last_number_;
}

void CallHandleMap::CallEnded(const std::string& correlation_id, uint64_t number) {
  Handle dropped;  // destroyed after the lock
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(correlation_id);
  if (found == entries_.end() || found->second.number != number) return;
  dropped = std::exchange(found->second.call.handle, {});
  found->second.call.ended = true;
}

std::optional<CallHandleMap::Call> CallHandleMap::Take(const std::string& correlation_id) {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(correlation_id);
  if (found == entries_.end()) return std::nullopt;
  std::optional<Call> call(std::in_place, std::move(found->second.call));
  entries_.erase(found);
  return call;
}

void CallHandleMap::PurgeCallHandleMap() {
  std::unordered_map<std::string, Entry> dropped;  // destroyed after the lock
  const std::lock_guard lock(mutex_);
  dropped.swap(entries_);
}

void CallHandleMap::PurgeStaleCallHandles() {
  std::vector<std::pair<std::string, Entry>> stale;
  {
    const TimePoint limit = Clock::Process().Now() - kStaleCall;
    const std::lock_guard lock(mutex_);
    for (auto entry = entries_.begin(); entry != entries_.end();) {
      if (entry->second.since >= limit) {
        ++entry;
        continue;
      }
      stale.emplace_back(entry->first, std::move(entry->second));
      entry = entries_.erase(entry);
    }
  }
  for (const auto& [correlation_id, entry] : stale) {
    ZLOG_INFO("[%s] MpaClientAppSpecific PurgeStaleCallHandles Removing call handle, corelationId (%s)",
              app_type_.c_str(), correlation_id.c_str());
  }
}

}  // namespace zem
