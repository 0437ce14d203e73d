#include "platform/core/condition.h"

#include <pthread.h>

#include <cerrno>
#include <optional>

namespace zem {
namespace {

timespec ToTimespec(TimePoint when) {
  const auto ns = when.time_since_epoch().count();
  return {static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
}

}  // namespace

// One per waiting thread, on its stack.  A condition per waiter instead of one for all lets a notification
// choose whom it wakes, which is what lets it count as that waiter's work at once.
struct Condition::Waiter {
  Waiter() {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&wake, &attributes);
    pthread_condattr_destroy(&attributes);
  }
  ~Waiter() { pthread_cond_destroy(&wake); }

  void Wake(Clock& clock) {
    woken = true;
    if (tracked) clock.BeginWork();
    pthread_cond_signal(&wake);
  }

  pthread_cond_t wake;
  bool woken = false;
  bool timed_out = false;
  bool tracked = false;
};

struct Condition::Waiting {
  std::mutex mutex;  // guards the list and the flags of each waiter on it
  std::list<Waiter*> waiters;
};

Condition::Condition() : waiting_(std::make_shared<Waiting>()) {}

Condition::~Condition() = default;

void Condition::NotifyOne() {
  std::lock_guard lock(waiting_->mutex);
  if (waiting_->waiters.empty()) return;
  Waiter* waiter = waiting_->waiters.front();
  waiting_->waiters.pop_front();
  waiter->Wake(Clock::Process());
}

void Condition::NotifyAll() {
  std::lock_guard lock(waiting_->mutex);
  for (Waiter* waiter : waiting_->waiters) waiter->Wake(Clock::Process());
  waiting_->waiters.clear();
}

bool Condition::Block(UserLock& user, const TimePoint* deadline) {
  Clock& clock = Clock::Process();
  const std::shared_ptr<Waiting> waiting = waiting_;
  // On the real clock the waiter lives on the stack; an alarm of a virtual clock may outlive this frame.
  std::optional<Waiter> on_stack;
  std::shared_ptr<Waiter> waiter;
  if (clock.IsVirtual()) {
    waiter = std::make_shared<Waiter>();
    waiter->tracked = true;
  } else {
    waiter = std::shared_ptr<Waiter>(std::shared_ptr<void>(), &on_stack.emplace());
  }

  // Leaves in the same state by return and by cancellation: off the list, no alarm, counted as working,
  // user's lock held.
  struct Leave {
    Waiting& waiting;
    UserLock& user;
    Waiter& waiter;
    Clock& clock;
    Clock::AlarmId alarm = 0;
    bool counted_out = false;
    bool inner_held = true;

    ~Leave() {
      if (!inner_held) waiting.mutex.lock();
      const bool woken = waiter.woken;
      if (!woken) {
        waiting.waiters.remove(&waiter);
        waiter.woken = true;  // an alarm that is running now finds nothing to do
      }
      waiting.mutex.unlock();
      if (counted_out && !woken) clock.BeginWork();
      if (alarm != 0) clock.CancelAlarm(alarm);
      user.Acquire();
    }
  };

  waiting->mutex.lock();
  waiting->waiters.push_back(waiter.get());
  Leave leave{*waiting, user, *waiter, clock};
  user.Release();
  if (waiter->tracked) {
    // The alarm may fire in the stack of `EndWork`, this thread's own included, so the inner lock is let go.
    waiting->mutex.unlock();
    leave.inner_held = false;
    if (deadline != nullptr) {
      leave.alarm = clock.SetAlarm(*deadline, [waiting, waiter, &clock] {
        std::lock_guard lock(waiting->mutex);
        if (waiter->woken) return;
        waiter->timed_out = true;
        waiting->waiters.remove(waiter.get());
        waiter->Wake(clock);
      });
    }
    leave.counted_out = true;
    clock.EndWork();
    waiting->mutex.lock();
    leave.inner_held = true;
  }
  while (!waiter->woken) {
    if (deadline == nullptr || waiter->tracked) {
      pthread_cond_wait(&waiter->wake, waiting->mutex.native_handle());
      continue;
    }
    const timespec until = ToTimespec(clock.OnMachine(*deadline));
    const int result = pthread_cond_timedwait(&waiter->wake, waiting->mutex.native_handle(), &until);
    if (result == ETIMEDOUT && !waiter->woken) return false;
  }
  return !waiter->timed_out;
}

}  // namespace zem
