#include "app/ctxteng/idsrecord/line_budget.h"

#include "framework/log/log.h"

namespace IdsEvtEng {
namespace {

constexpr zem::LogSource kLog{"tarvik", "idsevt"};
constexpr zem::Duration kPeriod = std::chrono::seconds(10);

}  // namespace

bool LineBudget::Allows(zem::TimePoint now) {
  const int64_t now_ns = now.time_since_epoch().count();
  const int64_t left_ns = end_ns_.load(std::memory_order_relaxed) - now_ns;
  // A period that ends later than a period from now is one of another clock.
  if (left_ns <= 0 || left_ns > kPeriod.count()) {
    end_ns_.store(now_ns + kPeriod.count(), std::memory_order_relaxed);
    left_.store(lines_ - 1, std::memory_order_relaxed);
    if (const uint64_t left_out = left_out_.exchange(0, std::memory_order_relaxed); left_out > 0)
      ZLOG_INFO("%lu lines like the next one were left out", left_out);
    return true;
  }
  if (left_.load(std::memory_order_relaxed) > 0) {
    left_.fetch_sub(1, std::memory_order_relaxed);
    return true;
  }
  left_out_.fetch_add(1, std::memory_order_relaxed);
  return false;
}

}  // namespace IdsEvtEng
