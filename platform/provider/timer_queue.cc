#include "platform/provider/timer_queue.h"

#include <boost/asio/post.hpp>
#include <utility>
#include <vector>

#include "platform/core/loop_monitor.h"

namespace zem {

const TimerOptions TimerOptions::Default{};

struct TimerQueue::Entry final : Timer {
  void Cancel() override {
    if (const auto queue = owner.lock()) queue->Cancel(*this);
  }

  std::weak_ptr<TimerQueue> owner;
  std::function<void()> function;
  Duration period{};
  Key key;
  bool cancelled = false;
};

TimerQueue::TimerQueue(boost::asio::io_context& io) : io_(io), wake_(io) {}

std::shared_ptr<Timer> TimerQueue::Schedule(Duration delay, std::function<void()> function) {
  return Add(delay, Duration::zero(), std::move(function));
}

std::shared_ptr<Timer> TimerQueue::ScheduleRepeated(Duration period, std::function<void()> function,
                                                    const TimerOptions&) {
  return Add(period, std::max(period, Duration(1)), std::move(function));
}

std::shared_ptr<Timer> TimerQueue::Add(Duration delay, Duration period, std::function<void()> function) {
  auto entry = std::make_shared<Entry>();
  entry->owner = weak_from_this();
  entry->function = std::move(function);
  entry->period = period;
  std::function<void()> dropped;
  std::lock_guard lock(mutex_);
  if (closed_) {
    dropped = std::exchange(entry->function, nullptr);
    return entry;
  }
  entry->key = Key(Clock::Process().Now() + std::max(delay, Duration::zero()), ++last_id_);
  Insert(entry);
  return entry;
}

void TimerQueue::Insert(const std::shared_ptr<Entry>& entry) {
  entries_.emplace(entry->key, entry);
  Arm();
}

void TimerQueue::Cancel(Entry& entry) {
  std::function<void()> dropped;  // destroyed after the lock: it may own what cancels timers itself
  std::shared_ptr<Entry> kept;
  std::lock_guard lock(mutex_);
  entry.cancelled = true;
  const auto found = entries_.find(entry.key);
  if (found == entries_.end() || found->second.get() != &entry) return;
  kept = std::move(found->second);
  dropped = std::move(kept->function);
  entries_.erase(found);
}

// Functions go even where somebody holds the timer: what they own often is that somebody, and the two would
// keep each other for ever.
void TimerQueue::Close() {
  std::vector<std::function<void()>> dropped;  // destroyed after the lock
  std::map<Key, std::shared_ptr<Entry>> entries;
  std::lock_guard lock(mutex_);
  closed_ = true;
  entries.swap(entries_);
  for (const auto& [key, entry] : entries) dropped.push_back(std::exchange(entry->function, nullptr));
  ++arming_;
  if (alarm_ != 0) Clock::Process().CancelAlarm(alarm_);
  wake_.cancel();
}

// Only an earlier first entry needs a new wake-up; a wake-up that finds nothing due arms the next one.
void TimerQueue::Arm() {
  if (entries_.empty()) return;
  const TimePoint first = entries_.begin()->first.first;
  if (first >= armed_) return;
  armed_ = first;
  const uint64_t arming = ++arming_;
  const std::weak_ptr<TimerQueue> weak = weak_from_this();
  const auto expire = [weak, arming] {
    const auto self = weak.lock();
    if (!self) return;
    {
      std::lock_guard lock(self->mutex_);
      if (arming != self->arming_) return;
      self->armed_ = TimePoint::max();
      self->alarm_ = 0;
    }
    self->Expire();
  };
  Clock& clock = Clock::Process();
  if (clock.IsVirtual()) {
    if (alarm_ != 0) clock.CancelAlarm(alarm_);
    alarm_ = clock.SetAlarm(first, [this, weak, expire] {
      if (const auto self = weak.lock()) {
        boost::asio::post(io_, [expire, token = std::make_shared<WorkToken>()] { expire(); });
      }
    });
    return;
  }
  wake_.expires_at(clock.OnMachine(first));
  wake_.async_wait([expire](const boost::system::error_code& error) {
    if (!error) expire();
  });
}

// Runs one due function and posts itself for the next, so that one that takes long holds up one thread only.
void TimerQueue::Expire() {
  std::shared_ptr<Entry> due;
  std::function<void()> function;
  {
    std::lock_guard lock(mutex_);
    const TimePoint now = Clock::Process().Now();
    if (entries_.empty() || entries_.begin()->first.first > now) {
      Arm();
      return;
    }
    due = std::move(entries_.begin()->second);
    entries_.erase(entries_.begin());
    if (due->period > Duration::zero()) {
      function = due->function;
    } else {
      function = std::move(due->function);
      due->function = nullptr;
    }
    if (!entries_.empty() && entries_.begin()->first.first <= now) {
      boost::asio::post(
          io_, [self = shared_from_this(), token = std::make_shared<WorkToken>()] { self->Expire(); });
    } else {
      Arm();
    }
  }
  struct Again {
    TimerQueue& queue;
    const std::shared_ptr<Entry>& entry;
    ~Again() {
      if (entry->period <= Duration::zero()) return;
      std::function<void()> dropped;
      std::lock_guard lock(queue.mutex_);
      if (entry->cancelled || queue.closed_) {
        dropped = std::exchange(entry->function, nullptr);
        return;
      }
      const TimePoint now = Clock::Process().Now();
      TimePoint next = entry->key.first + entry->period;
      if (next <= now) next += entry->period * ((now - next) / entry->period + 1);
      entry->key = Key(next, ++queue.last_id_);
      queue.Insert(entry);
    }
  } again{*this, due};
  if (!function) return;
  const LoopStep step(function.target_type().name());
  function();
}

}  // namespace zem
