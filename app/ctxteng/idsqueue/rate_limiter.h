#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace IdsEvtEng {

struct IdsEvent;

/// Holds back the alerts that one attacker goes on to cause by one signature at one guest: those above a
/// number in a sliding window.
///
/// An attacker's slot goes when its last alert is as old as the window.  The slots stand in the order of
/// their last alerts, so the cost of an alert does not depend on how many slots there are.
///
/// Threads: all operations from any thread.
/// Limits: 262144 slots with 1048576 seconds among them; beyond either the slots that are quiet for the
/// longest time go.
class RateLimiter {
 public:
  /// 0 for `threshold` never limits.
  RateLimiter(uint32_t threshold, uint32_t expiration_secs)
      : threshold_(threshold), expiration_secs_(expiration_secs) {}

  /// Counts the event at `now`, in seconds since the epoch; -1 is a time that is not known.  1 when the event
  /// is above the threshold, 0 when it may pass, -1 when the time is not known, which lets it pass.
  int Test(const IdsEvent& event, int64_t now);

  size_t slots() const;

 private:
  struct Slot;
  using Slots = std::unordered_map<std::string, Slot>;
  using Entry = Slots::value_type;
  // The second of the last alert stands in the slot itself, as most slots have no other.
  struct Slot {
    int64_t last_seen = 0;
    uint64_t count = 0;                                // in the window
    uint64_t in_second = 0;                            // of them, those of the last second
    std::vector<std::pair<int64_t, uint64_t>> before;  // the earlier seconds with their alerts
    Entry* quieter = nullptr;
    Entry* louder = nullptr;
  };

  uint64_t Count(int64_t now);
  bool Outside(int64_t second, int64_t now) const;
  void Expire(int64_t now);
  void BeginSecond(Slot* slot, int64_t now);
  void Append(Entry* entry);
  void Remove(Entry* entry);
  void DropQuietest();

  const uint32_t threshold_;
  const uint32_t expiration_secs_;
  mutable std::mutex mutex_;  // guards all below
  std::string key_;           // kept for its memory
  Slots slots_;
  // The slots in the order of their last alerts.
  Entry* quietest_ = nullptr;
  Entry* loudest_ = nullptr;
  size_t seconds_ = 0;  // in all `before`
};

}  // namespace IdsEvtEng
