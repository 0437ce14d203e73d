#include "framework/tasks/thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "framework/tasks/exception.h"
#include "framework/tasks/task_thread.h"
#include "platform/core/virtual_clock.h"
#include "tests/framework/tasks/recording_task.h"

namespace zem {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;

std::string Thrown(const std::function<void()>& call) {
  try {
    call();
  } catch (const Exception& e) {
    return e.what() + std::string(":") + std::to_string(e.code());
  }
  return "";
}

TEST(ZemaThreadTest, RefusesWhatItsStateForbids) {
  VirtualClock clock;
  Journal journal;
  Thread thread(true, MakeTask(journal, "ran"), 1 << 20);
  EXPECT_EQ(thread.ThreadId(), Thread::kNotStarted);
  EXPECT_EQ(Thrown([&] { thread.Join(); }), "Thread not started yet:0");
  EXPECT_EQ(Thrown([&] { thread.Stop(); }), "Thread not started yet:0");
  thread.Start();
  EXPECT_EQ(Thrown([&] { thread.Start(); }), "thread has been started:0");
  thread.Join();
  EXPECT_NE(thread.ThreadId(), Thread::kNotStarted);
  EXPECT_THAT(journal.Take(), ElementsAre("ran"));
}

TEST(ZemaThreadTest, WaitEndsByNotificationOrTime) {
  VirtualClock clock;
  Thread monitor(true, nullptr, 0);
  const TimePoint start = clock.Now();
  monitor.Lock();
  monitor.Notify();
  EXPECT_EQ(monitor.Wait(3), 0);  // the notification came before
  EXPECT_EQ(clock.Now() - start, seconds(3));
  NativeThread notifier([&] {
    SleepFor(seconds(2));
    const MonitorLock lock(monitor);
    monitor.Notify();
  });
  EXPECT_EQ(monitor.Wait(10), 1);
  EXPECT_EQ(clock.Now() - start, seconds(5));
  monitor.Unlock();
}

// A cancelled thread that kept its monitor would block all who come after it.
TEST(ZemaThreadTest, CancelledThreadLeavesItsMonitor) {
  class Waiter : public Thread {
   public:
    Waiter() : Thread(true, nullptr, 0) {}
    void Run() override {
      sigset_t blocked;
      pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
      blocks_signals =
          sigismember(&blocked, SIGINT) && sigismember(&blocked, SIGTERM) && sigismember(&blocked, SIGABRT);
      Lock();
      Wait(0);
      ADD_FAILURE() << "nobody has notified";
    }
    std::atomic<bool> blocks_signals{false};
  };
  VirtualClock clock;
  Waiter waiter;
  waiter.Start();
  clock.Settle();
  waiter.Stop();
  waiter.Join();
  EXPECT_TRUE(waiter.blocks_signals);
  const MonitorLock lock(waiter);  // would wait forever
}

}  // namespace
}  // namespace zem
