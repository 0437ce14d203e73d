#include "framework/tasks/batch_task_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/tasks/exception.h"
#include "platform/core/thread_name.h"
#include "platform/core/virtual_clock.h"
#include "tests/framework/tasks/recording_task.h"
#include "tests/support/log_capture.h"

namespace zem {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Writes a batch as "{a,b}" when it runs.
class RecordingBatcher : public BatchRunnable {
 public:
  explicit RecordingBatcher(Journal& journal) : journal_(journal) {}
  void AddTask(Runnable* task) override {
    const std::string name = static_cast<RecordingTask*>(task)->Absorb();
    if (name == "bad") throw Exception("refused", 0);
    gathered_.push_back(name);
  }
  void Reset() override { gathered_.clear(); }
  long Count() const override { return static_cast<long>(gathered_.size()); }
  void UpdateBatcher(Runnable* task) override {
    if (!gathered_.empty()) gathered_.back() += "+" + static_cast<RecordingTask*>(task)->Absorb();
  }
  void Run() override {
    if (gathered_.empty()) return;
    std::string text;
    for (const std::string& name : gathered_) text += (text.empty() ? "" : ",") + name;
    journal_.Add("{" + text + "}");
    if (text == "throw") throw Exception("batch", 0);
  }

 private:
  Journal& journal_;
  std::vector<std::string> gathered_;
};

class BatchTaskThreadTest : public ::testing::Test {
 protected:
  void Start(int interval, int threshold) {
    worker_ = std::make_unique<BatchTaskThread>("logicalSwitchTaskThread", interval, threshold,
                                                std::make_unique<RecordingBatcher>(journal_));
    worker_->Start();
    clock_.Settle();
  }
  void Add(const std::string& name, bool batchable = true, std::function<void()> work = nullptr) {
    worker_->AddTask(MakeTask(journal_, name, std::move(work), batchable));
  }

  VirtualClock clock_;
  test::LogCapture capture_;
  Journal journal_;
  std::unique_ptr<BatchTaskThread> worker_;
};

TEST_F(BatchTaskThreadTest, QuietPeriodClosesTheBatch) {
  Start(60, 5);
  Add("a");
  Add("b");
  clock_.RunFor(seconds(4));
  Add("c");
  EXPECT_THAT(journal_.Take(), IsEmpty());
  clock_.RunFor(seconds(8));
  EXPECT_THAT(journal_.Take(), ElementsAre("{a,b,c}"));
}

// A trickle that never pauses must not keep a batch open beyond its interval.
TEST_F(BatchTaskThreadTest, TrickleIsCutAtTheInterval) {
  Start(60, 5);
  int seconds_to_batch = 0;
  std::vector<std::string> batches;
  while (batches.empty() && seconds_to_batch < 200) {
    Add("t");
    clock_.RunFor(seconds(1));
    ++seconds_to_batch;
    batches = journal_.Take();
  }
  EXPECT_GE(seconds_to_batch, 60);
  EXPECT_LE(seconds_to_batch, 62);
}

// A barrier behind gathered tasks must not overtake them; alone it must not wait for a batch.
TEST_F(BatchTaskThreadTest, UnbatchableTasksKeepTheirPlace) {
  Start(10, 2);
  Add("x", false);
  Add("a");
  Add("y", false);
  Add("z", false, [] { ADD_FAILURE() << "overtakes the batch"; });
  clock_.RunFor(seconds(5));
  EXPECT_THAT(journal_.Take(), ElementsAre("x", "{a+y+z}"));
}

TEST_F(BatchTaskThreadTest, ExceptionsAreContained) {
  Start(1, 1);
  Add("bad");
  Add("good");
  clock_.RunFor(seconds(4));
  EXPECT_THAT(journal_.Take(), ElementsAre("{good}"));
  Add("throw");
  clock_.RunFor(seconds(4));
  Add("u", false, [] { throw Exception("alone", 0); });
  Add("after");
  clock_.RunFor(seconds(4));
  EXPECT_THAT(journal_.Take(), ElementsAre("{throw}", "u", "{after}"));
  EXPECT_TRUE(capture_.Contains("errorCode=\"MPA41002\"] [logicalSwitchTaskThread:"));
  EXPECT_TRUE(capture_.Contains("] : batch task threw exception [batch]"));
  EXPECT_TRUE(capture_.Contains("] : non-batchable task threw exception [alone]"));
  EXPECT_TRUE(capture_.Contains("] : added [1/2] tasks to the batcher, at [0/1] time"));
}

TEST_F(BatchTaskThreadTest, NoIntervalRunsAtOnceAndNoThresholdDoesNotHang) {
  Start(0, 5);
  Add("a");
  clock_.RunFor(seconds(2));
  EXPECT_THAT(journal_.Take(), ElementsAre("{a}"));
  worker_.reset();
  Start(10, 0);
  Add("b");
  clock_.RunFor(seconds(2));
  EXPECT_THAT(journal_.Take(), ElementsAre("{b}"));
}

TEST_F(BatchTaskThreadTest, StoppedWorkerThrowsAndDestroys) {
  Start(10, 5);
  Add("gathered");
  clock_.RunFor(seconds(2));
  Add("queued");
  worker_->Stop();
  worker_->Join();
  try {
    Add("late");
    FAIL() << "accepted";
  } catch (const Exception& e) {
    EXPECT_STREQ(e.what(), "BatchTaskThread already stopped");
    EXPECT_EQ(e.code(), 0);
  }
  EXPECT_THAT(journal_.Take(), ElementsAre("~queued", "~late"));
  EXPECT_TRUE(capture_.Contains("terminating, discarding remaining task: queue:[1] batch:[1]"));
}

}  // namespace
}  // namespace zem
