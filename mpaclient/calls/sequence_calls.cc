#include "mpaclient/calls/sequence_calls.h"

#include "framework/log/log.h"

namespace zem {
namespace {

constexpr LogSource kLog{"mpa-client"};

}  // namespace

// With the lock held.
void SequenceCalls::Add(uint32_t sequence, Handle handle) {
  if (!handles_.try_emplace(sequence, std::move(handle)).second) {
    ZLOG_INFO("[%s] MpaClientAppSpecific AddToSeqCallHandleMap Handle with seq (%d) already present",
              app_type_.c_str(), static_cast<int>(sequence));
  }
}

SequenceCalls::Handle SequenceCalls::GetFromSeqToCallHandleMap(uint32_t sequence) const {
  const std::lock_guard lock(mutex_);
  const auto found = handles_.find(sequence);
  if (found != handles_.end()) return found->second;
  ZLOG_INFO(
      "[%s] MpaClientAppSpecific GetFromSeqToCallHandleMap: call_handle corresponding to seq %d not found",
      app_type_.c_str(), static_cast<int>(sequence));
  return {};
}

void SequenceCalls::DeleteFromSeqToCallHandleMap(uint32_t sequence) {
  Handle dropped;  // destroyed after the lock
  const std::lock_guard lock(mutex_);
  const auto found = handles_.find(sequence);
  if (found == handles_.end()) return;
  dropped = std::move(found->second);
  handles_.erase(found);
}

}  // namespace zem
