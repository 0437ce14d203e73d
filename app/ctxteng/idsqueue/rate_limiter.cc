#include "app/ctxteng/idsqueue/rate_limiter.h"

#include <algorithm>

#include "app/ctxteng/idsrecord/ids_event.h"
#include "app/ctxteng/idsrecord/line_budget.h"
#include "framework/log/log.h"

namespace IdsEvtEng {
namespace {

constexpr zem::LogSource kLog{"tarvik", "idsevt"};

constexpr size_t kMostSlots = 262144;
constexpr size_t kMostSeconds = 1048576;
constexpr uint32_t kLinesOfAKind = 10;
LineBudget g_limited{kLinesOfAKind};

}  // namespace

int RateLimiter::Test(const IdsEvent& event, int64_t now) {
  if (threshold_ == 0) return 0;
  if (now == -1) {
    ZLOG_WARN("System time is busy for rate limiting event %s", LogText(event).c_str());
    return -1;
  }
  {
    const std::lock_guard lock(mutex_);
    Expire(now);
    key_ = std::to_string(event.signature_id);
    key_.append(1, ':').append(event.vm_uuid).append(1, ' ').append(AttackerOf(event));
    if (Count(now) <= threshold_) return 0;
  }
  if (g_limited.Allows()) ZLOG_INFO("Rate limiting event %s", LogText(event).c_str());
  return 1;
}

// Counts an alert of `key_`.
uint64_t RateLimiter::Count(int64_t now) {
  const auto [found, is_new] = slots_.try_emplace(key_);
  Entry* const entry = &*found;
  Slot& slot = entry->second;
  // Among the slots of one second the place does not matter, and its neighbours are far away in memory.
  if (is_new || slot.last_seen != now) {
    if (!is_new) Remove(entry);
    BeginSecond(&slot, now);
    Append(entry);
  }
  ++slot.in_second;
  const uint64_t count = ++slot.count;
  while (slots_.size() > kMostSlots || (seconds_ > kMostSeconds && quietest_ != entry)) DropQuietest();
  return count;
}

// A second that is ahead by more than the window was counted before the wall clock was set back; it would
// hold up what stands behind it until the clock has come that far again.
bool RateLimiter::Outside(int64_t second, int64_t now) const {
  return second < now - expiration_secs_ || second > now + expiration_secs_;
}

void RateLimiter::Expire(int64_t now) {
  while (quietest_ != nullptr && Outside(quietest_->second.last_seen, now)) DropQuietest();
}

void RateLimiter::BeginSecond(Slot* slot, int64_t now) {
  if (slot->in_second > 0) {
    slot->before.emplace_back(slot->last_seen, slot->in_second);
    ++seconds_;
  }
  slot->last_seen = now;
  slot->in_second = 0;
  // All of them: also a small step back leaves seconds ahead of the others.
  seconds_ -= std::erase_if(slot->before, [&](const auto& second) {
    const bool outside = Outside(second.first, now);
    if (outside) slot->count -= second.second;
    return outside;
  });
}

void RateLimiter::Append(Entry* entry) {
  entry->second.quieter = loudest_;
  entry->second.louder = nullptr;
  (loudest_ != nullptr ? loudest_->second.louder : quietest_) = entry;
  loudest_ = entry;
}

void RateLimiter::Remove(Entry* entry) {
  const Slot& slot = entry->second;
  (slot.quieter != nullptr ? slot.quieter->second.louder : quietest_) = slot.louder;
  (slot.louder != nullptr ? slot.louder->second.quieter : loudest_) = slot.quieter;
}

void RateLimiter::DropQuietest() {
  Entry* const entry = quietest_;
  seconds_ -= entry->second.before.size();
  Remove(entry);
  slots_.erase(slots_.find(entry->first));
}

size_t RateLimiter::slots() const {
  const std::lock_guard lock(mutex_);
  return slots_.size();
}

}  // namespace IdsEvtEng
