#include "platform/core/virtual_clock.h"

#include <poll.h>

#include <algorithm>
#include <cassert>

#include "platform/core/condition.h"

namespace zem {
namespace {

// An hour past the steady clock's origin, so that "now minus something" is never before it.
constexpr Duration kStart = std::chrono::hours(1);
// 2026-01-01T00:00:00Z.
constexpr std::chrono::seconds kWallStart{1767225600};

}  // namespace

VirtualClock::VirtualClock() : now_ns_(kStart.count()) { Install(this); }

VirtualClock::~VirtualClock() { Install(nullptr); }

TimePoint VirtualClock::Now() const { return TimePoint(Duration(now_ns_.load(std::memory_order_acquire))); }

WallTime VirtualClock::WallNow() const {
  return WallTime(
      std::chrono::duration_cast<WallTime::duration>(kWallStart + (Now().time_since_epoch() - kStart)));
}

Clock::AlarmId VirtualClock::SetAlarm(TimePoint due, AlarmFunction function) {
  std::lock_guard lock(mutex_);
  const AlarmId id = ++last_id_;
  alarms_.emplace(std::pair(due, id), std::move(function));
  due_.emplace(id, due);
  return id;
}

bool VirtualClock::CancelAlarm(AlarmId id) {
  std::lock_guard lock(mutex_);
  const auto due = due_.find(id);
  if (due == due_.end()) return false;
  alarms_.erase(std::pair(due->second, id));
  due_.erase(due);
  return true;
}

void VirtualClock::BeginWork() {
  std::lock_guard lock(mutex_);
  ++busy_;
}

void VirtualClock::EndWork() {
  std::unique_lock lock(mutex_);
  assert(busy_ > 0);
  if (--busy_ == 0) AdvanceWhileIdle(lock);
}

Clock::WatchId VirtualClock::Watch(const pollfd* descriptors, size_t count) {
  std::vector<std::pair<int, short>> watched;
  watched.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    if (descriptors[i].fd >= 0) watched.emplace_back(descriptors[i].fd, descriptors[i].events);
  }
  std::lock_guard lock(mutex_);
  watched_.emplace(++last_watch_, std::move(watched));
  return last_watch_;
}

void VirtualClock::Unwatch(WatchId id) {
  std::lock_guard lock(mutex_);
  watched_.erase(id);
}

// Whoever waits for it wakes by itself, and time goes on when that thread waits again.
bool VirtualClock::InputWaitsLocked() const {
  std::vector<pollfd> all;
  for (const auto& [id, watched] : watched_) {
    for (const auto& [fd, events] : watched) all.push_back({fd, events, 0});
  }
  if (all.empty() || ::poll(all.data(), all.size(), 0) <= 0) return false;
  return std::any_of(all.begin(), all.end(),
                     [](const pollfd& one) { return (one.revents & ~POLLNVAL) != 0; });
}

void VirtualClock::AdvanceWhileIdle(std::unique_lock<std::mutex>& lock) {
  while (busy_ == 0 && !alarms_.empty()) {
    if (InputWaitsLocked()) return;
    auto first = alarms_.extract(alarms_.begin());
    due_.erase(first.key().second);
    const int64_t due = first.key().first.time_since_epoch().count();
    if (due > now_ns_.load(std::memory_order_relaxed)) now_ns_.store(due, std::memory_order_release);
    ++busy_;
    lock.unlock();
    first.mapped()();
    lock.lock();
    --busy_;
  }
}

void VirtualClock::RunFor(Duration duration) {
  // The alarm of this wait is younger than every alarm that is due at the same moment, so those run first.
  // What they start may again fall due now: the second round, with a younger alarm, lets that run as well.
  const TimePoint end = Now() + duration;
  std::mutex mutex;
  std::unique_lock lock(mutex);
  Condition never;
  never.WaitUntil(lock, end, [] { return false; });
  never.WaitUntil(lock, end, [] { return false; });
}

int64_t VirtualClock::busy() const {
  std::lock_guard lock(mutex_);
  return busy_;
}

}  // namespace zem
