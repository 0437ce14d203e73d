#include "framework/tasks/task_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "framework/tasks/exception.h"
#include "framework/tasks/thread_log_context.h"
#include "platform/core/virtual_clock.h"
#include "tests/framework/tasks/recording_task.h"
#include "tests/support/log_capture.h"

namespace zem {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TaskThreadTest : public ::testing::Test {
 protected:
  std::unique_ptr<Runnable> Task(std::string name, std::function<void()> work = nullptr) {
    return MakeTask(journal_, std::move(name), std::move(work));
  }

  VirtualClock clock_;
  test::LogCapture capture_;
  Journal journal_;
  TaskThread worker_{"hostSyncTaskThread"};
};

// A task that throws, whatever it throws, must not take the worker or the next task with it.
TEST_F(TaskThreadTest, TasksRunInOrderAndExceptionsEndThere) {
  std::string prefix;
  worker_.AddTask(Task("first", [&] { prefix = CurrentThreadLogContext().prefix; }));
  worker_.AddTask(Task("own", [] { throw Exception("mine", 1); }));
  worker_.AddTask(Task("standard", [] { throw std::runtime_error("theirs"); }));
  worker_.AddTask(Task("last"), false);
  worker_.AddTask(nullptr);
  worker_.Start();
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ElementsAre("first", "own", "standard", "last"));
  EXPECT_EQ(capture_.Count("errorCode=\"MPA41004\"] TaskThread [hostSyncTaskThread:"), 2u);
  EXPECT_TRUE(capture_.Contains("threw exception [mine]"));
  EXPECT_TRUE(capture_.Contains("errorCode=\"MPA41003\"] TaskThread [hostSyncTaskThread:"));
  EXPECT_EQ(capture_.Count("got task"), 3u);
  EXPECT_EQ(prefix.rfind("ZEMA[hostSyncTaskThread:", 0), 0u);
}

TEST_F(TaskThreadTest, StopTakesEffectAfterTheTaskThatRuns) {
  worker_.AddTask(Task("long", [] { SleepFor(seconds(10)); }));
  worker_.AddTask(Task("second"));
  worker_.Start();
  clock_.RunFor(seconds(1));
  worker_.AddTask(Task("third"));
  EXPECT_TRUE(worker_.AddLowPriorityTask(Task("low"), 0));
  worker_.Stop();
  worker_.AddTask(Task("late"));
  EXPECT_FALSE(worker_.AddLowPriorityTask(Task("late low"), 0));
  EXPECT_THAT(journal_.Take(), ElementsAre("long", "~late", "~late low"));
  worker_.Join();
  EXPECT_THAT(journal_.Take(), ::testing::UnorderedElementsAre("~second", "~third", "~low"));
  EXPECT_TRUE(capture_.Contains("terminating, discarding remaining [2] task"));
  EXPECT_TRUE(capture_.Contains("] because zema stopped"));
}

TEST_F(TaskThreadTest, LowPriorityTaskWaitsForItsTimeAndAnEmptyQueue) {
  worker_.Start();
  EXPECT_TRUE(worker_.AddLowPriorityTask(Task("replaced"), 5));
  clock_.RunFor(seconds(4));
  EXPECT_TRUE(worker_.AddLowPriorityTask(Task("low"), 5));
  EXPECT_THAT(journal_.Take(), ElementsAre("~replaced"));
  clock_.RunFor(seconds(4));
  EXPECT_THAT(journal_.Take(), IsEmpty());
  worker_.AddTask(Task("busy", [] { SleepFor(seconds(20)); }));
  clock_.RunFor(seconds(10));
  worker_.AddTask(Task("queued"));
  EXPECT_THAT(journal_.Take(), ElementsAre("busy"));
  clock_.RunFor(seconds(15));
  EXPECT_THAT(journal_.Take(), ElementsAre("queued", "low"));
  EXPECT_FALSE(worker_.AddLowPriorityTask(nullptr, 0));
  EXPECT_TRUE(worker_.AddLowPriorityTask(Task("bad", [] { throw Exception("x", 0); }), 0));
  clock_.Settle();
  EXPECT_TRUE(capture_.Contains(" : low-priority task ["));
}

TEST_F(TaskThreadTest, ClearDestroysWhatWaits) {
  worker_.AddTask(Task("a"));
  EXPECT_TRUE(worker_.AddLowPriorityTask(Task("b"), 1));
  worker_.Clear();
  EXPECT_THAT(journal_.Take(), ::testing::UnorderedElementsAre("~a", "~b"));
  EXPECT_EQ(worker_.queue_length(), 0u);
}

// A queue that grows, or whose tasks wait for long, must show while it does, and afterwards.
TEST_F(TaskThreadTest, TheQueueShowsItsDepthItsLongestWaitAndItsLosses) {
  TaskThread worker("measured", 3);
  const auto reading = [] {
    for (QueueGauge::Reading& each : QueueGauge::ReadAll()) {
      if (each.name == "measured") return std::move(each);
    }
    return QueueGauge::Reading();
  };
  worker.AddTask(Task("first", [] { SleepFor(seconds(7)); }));
  worker.AddTaskAsleep(Task("second"));
  worker.Start();
  clock_.RunFor(seconds(5));
  EXPECT_EQ(reading().depth, 1u) << "what is taken off the queue together with the first still waits";
  EXPECT_EQ(reading().longest_wait, seconds(5));
  worker.AddTask(Task("third"));
  EXPECT_TRUE(worker.TakesRequest());
  worker.AddTask(Task("fourth"));
  EXPECT_FALSE(worker.TakesRequest());
  worker.AddTask(Task("of the agent itself"));
  worker.Clear();
  EXPECT_EQ(reading().depth, 1u);
  clock_.RunFor(seconds(5));
  EXPECT_TRUE(worker.TakesRequest());
  EXPECT_THAT(journal_.Take(), ElementsAre("first", "~third", "~fourth", "~of the agent itself", "second"));
  const QueueGauge::Reading last = reading();
  EXPECT_EQ(last.depth, 0u);
  EXPECT_EQ(last.most, 4u);
  EXPECT_EQ(last.longest_wait, seconds(7));
  EXPECT_EQ(last.dropped, 4u) << "one refused, three cleared";
  EXPECT_EQ(last.limit, 3u);
}

}  // namespace
}  // namespace zem
