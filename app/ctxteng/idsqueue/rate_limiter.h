#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
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
  using Slots = std::list<Slot>;
  struct Slot {
    std::string key;
    int64_t last_seen = 0;
    uint64_t count = 0;
    std::vector<std::pair<int64_t, uint64_t>> seconds;  // with the alerts of each, in order
  };

  Slot& Touch(const std::string& key, int64_t now);
  Slot& Count(Slot* slot, int64_t now);
  void Expire(int64_t now);
  void ForgetOldSeconds(Slot* slot, int64_t now);
  void DropQuietest();

  const uint32_t threshold_;
  const uint32_t expiration_secs_;
  mutable std::mutex mutex_;  // guards all below
  std::string key_;           // kept for its memory
  Slots slots_;               // the one of the last alert is at the end
  std::unordered_map<std::string_view, Slots::iterator> by_key_;
  size_t seconds_ = 0;  // of all slots
};

}  // namespace IdsEvtEng
