#include "app/zema/common/task_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "app/zema/common/exception.h"
#include "app/zema/common/thread_log_context.h"
#include "platform/core/virtual_clock.h"
#include "tests/app/zema/common/recording_task.h"
#include "tests/support/log_capture.h"

namespace zem::zema {
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

}  // namespace
}  // namespace zem::zema
