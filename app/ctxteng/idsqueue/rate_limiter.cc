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
    if (Touch(key_, now).count <= threshold_) return 0;
  }
  if (g_limited.Allows()) ZLOG_INFO("Rate limiting event %s", LogText(event).c_str());
  return 1;
}

RateLimiter::Slot& RateLimiter::Touch(const std::string& key, int64_t now) {
  const auto found = by_key_.find(key);
  if (found == by_key_.end()) {
    slots_.push_back({key, 0, 0, {}});
    by_key_.emplace(slots_.back().key, std::prev(slots_.end()));
  } else if (found->second->last_seen == now) {
    // Its place among the slots of this second does not matter, and its neighbours are far away in memory.
    return Count(&*found->second, now);
  } else {
    slots_.splice(slots_.end(), slots_, found->second);
  }
  return Count(&slots_.back(), now);
}

RateLimiter::Slot& RateLimiter::Count(Slot* counted, int64_t now) {
  Slot& slot = *counted;
  ForgetOldSeconds(&slot, now);
  slot.last_seen = now;
  ++slot.count;
  if (slot.seconds.empty() || slot.seconds.back().first != now) {
    slot.seconds.emplace_back(now, 0);
    ++seconds_;
  }
  ++slot.seconds.back().second;
  while (slots_.size() > kMostSlots || (seconds_ > kMostSeconds && &slots_.front() != &slot)) DropQuietest();
  return slot;
}

void RateLimiter::Expire(int64_t now) {
  while (!slots_.empty() && slots_.front().last_seen < now - expiration_secs_) DropQuietest();
}

void RateLimiter::ForgetOldSeconds(Slot* slot, int64_t now) {
  const int64_t oldest = now - expiration_secs_;
  auto kept = slot->seconds.begin();
  while (kept != slot->seconds.end() && kept->first < oldest) {
    slot->count -= kept->second;
    ++kept;
  }
  seconds_ -= static_cast<size_t>(kept - slot->seconds.begin());
  slot->seconds.erase(slot->seconds.begin(), kept);
}

void RateLimiter::DropQuietest() {
  Slot& slot = slots_.front();
  seconds_ -= slot.seconds.size();
  by_key_.erase(slot.key);
  slots_.pop_front();
}

size_t RateLimiter::slots() const {
  const std::lock_guard lock(mutex_);
  return slots_.size();
}

}  // namespace IdsEvtEng
