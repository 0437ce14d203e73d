#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "platform/core/condition.h"
#include "platform/core/long_mutex.h"
#include "platform/core/poll.h"
#include "platform/core/retry_policy.h"
#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"
#include "platform/core/virtual_clock.h"
#include "platform/provider/bounded_queue.h"

namespace zem {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;

// Real threads under a clock in hand: their order is the order of their deadlines, run after run.
TEST(VirtualClockTest, SleepersWakeInOrderAndTimeDoesNotRunAhead) {
  VirtualClock clock;
  const TimePoint begin = clock.Now();
  std::mutex mutex;
  std::vector<int64_t> woken;
  std::vector<NativeThread> threads;
  for (const int s : {30, 10, 20, 10}) {
    threads.emplace_back([&, s] {
      for (int i = 0; i < 2; ++i) {
        SleepFor(seconds(s));
        std::lock_guard lock(mutex);
        woken.push_back((clock.Now() - begin) / seconds(1));
      }
    });
  }
  clock.RunFor(seconds(25));
  {
    std::lock_guard lock(mutex);
    EXPECT_THAT(woken, ElementsAre(10, 10, 20, 20, 20));
  }
  EXPECT_EQ(clock.Now() - begin, seconds(25));
  clock.RunFor(hours(1));
  EXPECT_THAT(woken, ElementsAre(10, 10, 20, 20, 20, 30, 40, 60));
}

// A descriptor's waiter shares the clock with those that wait for each other.
TEST(VirtualClockTest, APollEndsAtItsMomentOrWithItsDescriptor) {
  VirtualClock clock;
  const TimePoint begin = clock.Now();
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const UniqueFd read_end(ends[0]);
  const UniqueFd write_end(ends[1]);
  std::vector<int64_t> ended;
  NativeThread waiter([&] {
    pollfd wait{read_end.get(), POLLIN, 0};
    for (const int expected : {0, 0, 1}) {
      EXPECT_EQ(PollUntil(&wait, 1, clock.Now() + seconds(10)), expected);
      ended.push_back((clock.Now() - begin) / seconds(1));
      if (ended.size() == 2) {
        EXPECT_EQ(::write(write_end.get(), "x", 1), 1);
      }
    }
  });
  NativeThread other([] { SleepFor(seconds(15)); });
  clock.RunFor(seconds(60));
  EXPECT_THAT(ended, ElementsAre(10, 20, 20));
}

// An owner that cannot wait for ever joins what ends in time, and leaves the rest.
TEST(NativeThreadTest, JoinsOnlyWhatEndsInTime) {
  VirtualClock clock;
  NativeThread early([] { SleepFor(seconds(1)); });
  NativeThread late([] { SleepFor(seconds(10)); });
  const TimePoint deadline = clock.Now() + seconds(5);
  EXPECT_TRUE(early.JoinUntil(deadline));
  EXPECT_FALSE(early.joinable());
  EXPECT_FALSE(late.JoinUntil(deadline));
  EXPECT_EQ(clock.Now(), deadline);
  EXPECT_TRUE(late.joinable());
  EXPECT_TRUE(late.JoinUntil(deadline + seconds(6)));
}

// Between a notification and the waking of its waiter no deadline may slip by.
TEST(VirtualClockTest, ANotificationCountsAsWork) {
  VirtualClock clock;
  std::mutex mutex;
  Condition changed;
  bool ready = false;
  bool timed_out = false;
  NativeThread waiter([&] {
    std::unique_lock lock(mutex);
    timed_out = !changed.WaitFor(lock, seconds(10), [&] { return ready; });
  });
  NativeThread notifier([&] {
    SleepFor(seconds(10) - milliseconds(1));
    std::lock_guard lock(mutex);
    ready = true;
    changed.NotifyOne();
  });
  clock.RunFor(seconds(60));
  EXPECT_FALSE(timed_out);
}

TEST(ConditionTest, NotifyOneWakesOneAndAllWakesAll) {
  VirtualClock clock;
  std::mutex mutex;
  Condition changed;
  int tokens = 0;
  std::atomic<int> through = 0;
  std::vector<NativeThread> threads;
  for (int i = 0; i < 5; ++i) {
    threads.emplace_back([&] {
      std::unique_lock lock(mutex);
      changed.Wait(lock, [&] { return tokens > 0; });
      --tokens;
      ++through;
    });
  }
  clock.Settle();
  const auto give = [&](int n) {
    std::lock_guard lock(mutex);
    tokens = n;
    n == 1 ? changed.NotifyOne() : changed.NotifyAll();
  };
  give(1);
  clock.Settle();
  EXPECT_EQ(through, 1);
  give(4);
  clock.Settle();
  EXPECT_EQ(through, 5);
}

// A cancelled waiter unwinds with its lock held and leaves nothing behind that a later notification could be
// lost to.
TEST(ThreadTest, CancelUnwindsAWaiterOnBothClocks) {
  for (const bool on_virtual_clock : {false, true}) {
    std::optional<VirtualClock> clock;
    if (on_virtual_clock) clock.emplace();
    std::mutex mutex;
    Condition changed;
    std::atomic<bool> waiting = false;
    bool unwound_with_lock = false;
    bool ready = false;
    NativeThread cancelled([&] {
      struct Unwinding {
        std::mutex& mutex;
        bool& held;
        ~Unwinding() { held = !mutex.try_lock(); }
      } unwinding{mutex, unwound_with_lock};
      mutex.lock();
      struct Unlock {
        std::mutex& mutex;
        ~Unlock() {}
      } unlock{mutex};
      waiting = true;
      changed.Wait(mutex, [&] { return false; });
    });
    if (clock) {
      clock->Settle();
    } else {
      while (!waiting) ::sched_yield();
    }
    EXPECT_EQ(cancelled.Cancel(), 0);
    cancelled.Join();
    EXPECT_TRUE(unwound_with_lock);
    mutex.unlock();

    NativeThread other([&] {
      std::unique_lock lock(mutex);
      changed.Wait(lock, [&] { return ready; });
    });
    {
      std::lock_guard lock(mutex);
      ready = true;
      changed.NotifyOne();
    }
    other.Join();
  }
}

// Who waits for the lock does not keep its holder's moment from coming.
TEST(LongMutexTest, IsHeldAcrossAWaitOfTheVirtualClock) {
  VirtualClock clock;
  const TimePoint begin = clock.Now();
  LongMutex mutex;
  std::vector<int64_t> entered;
  std::vector<NativeThread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      const std::lock_guard lock(mutex);
      entered.push_back((clock.Now() - begin) / seconds(1));
      SleepFor(seconds(5));
    });
  }
  clock.RunFor(seconds(20));
  EXPECT_THAT(entered, ElementsAre(0, 5, 10));
}

// A waiter that is cancelled just when the lock is free has been told so in place of the next one.
TEST(LongMutexTest, ACancelledWaiterLeavesTheLockToTheNext) {
  for (int round = 0; round < 200 && !HasFailure(); ++round) {
    VirtualClock clock;
    LongMutex mutex;
    std::atomic<bool> entered{false};
    mutex.lock();
    NativeThread cancelled([&] { const std::lock_guard lock(mutex); });
    clock.RunFor(seconds(1));
    NativeThread next([&] {
      const std::lock_guard lock(mutex);
      entered = true;
    });
    clock.RunFor(seconds(1));
    mutex.unlock();
    cancelled.Cancel();
    clock.RunFor(seconds(1));
    EXPECT_TRUE(entered) << round;
    // Lets it go in any case.
    mutex.lock();
    mutex.unlock();
  }
}

TEST(StopSignalTest, EndsASleepEarly) {
  VirtualClock clock;
  StopSignal stop;
  bool stopped = false;
  TimePoint ended{};
  const TimePoint begin = clock.Now();
  NativeThread sleeper([&] {
    EXPECT_FALSE(stop.WaitFor(seconds(5)));
    stopped = stop.WaitFor(hours(1));
    ended = clock.Now();
  });
  clock.RunFor(seconds(8));
  stop.Stop();
  clock.Settle();
  sleeper.Join();
  EXPECT_TRUE(stopped);
  EXPECT_EQ(ended - begin, seconds(8));
}

TEST(BoundedQueueTest, FullRefusesClosedWakesAndFrontGoesFirst) {
  VirtualClock clock;
  BoundedQueue<int> queue("numbers", 2);
  EXPECT_TRUE(queue.TryPush(1));
  EXPECT_TRUE(queue.TryPush(2));
  EXPECT_FALSE(queue.TryPush(3));
  EXPECT_EQ(queue.dropped(), 1u);
  queue.PushFront(0);
  EXPECT_EQ(queue.Pop(), 0);
  bool pushed = true;
  NativeThread writer([&] { pushed = queue.Push(4); });
  clock.Settle();
  queue.Close();
  clock.Settle();
  writer.Join();
  EXPECT_FALSE(pushed);
  EXPECT_EQ(queue.Pop(), std::nullopt);
}

TEST(RetryPolicyTest, DelaysGrowToTheMaximumAndEnd) {
  struct Case {
    RetryPolicy policy;
    std::vector<int64_t> delays;
  };
  for (Case c :
       {Case{RetryPolicy(1000, 5000, 2.0, -1), {1000, 2000, 4000, 5000, 5000}},
        Case{RetryPolicy(1000, 1000, 1.0, 2), {1000, 1000, -1, -1}},
        Case{RetryPolicy(1000000, 10000000, 2.0, 0), {-1}}, Case{RetryPolicy(5000), {5000, 5000, 5000}},
        Case{RetryPolicy(10000, 30000, 2.0, -1), {10000, 20000, 30000, 30000}}}) {
    for (int round = 0; round < 2; ++round) {
      for (const int64_t delay : c.delays) EXPECT_EQ(c.policy.NextDelay(), delay);
      c.policy.Reset();
    }
  }
}

}  // namespace
}  // namespace zem
