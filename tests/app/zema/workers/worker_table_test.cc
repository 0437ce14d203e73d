#include "app/zema/workers/worker_table.h"
#include "app/zema/workers/worker_tasks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/zema/manager/mpa_message_task.h"
#include "framework/tasks/exception.h"
#include "platform/core/virtual_clock.h"
#include "tests/framework/tasks/recording_task.h"
#include "tests/support/log_capture.h"

namespace zem::zema {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class NoBatcher : public BatchRunnable {
 public:
  void AddTask(Runnable*) override {}
  void Reset() override {}
  long Count() const override { return 0; }
  void Run() override {}
};

class WorkerTableTest : public ::testing::Test {
 protected:
  WorkerTableTest() {
    WorkerFactory factory;
    factory.options = [this] { return options_; };
    factory.ls_ack_batcher = [] { return std::make_unique<NoBatcher>(); };
    factory.ls_batcher = [] { return std::make_unique<NoBatcher>(); };
    factory.database_handler = [this](const std::string& name) {
      if (fail_database_) throw Exception("no store", 3);
      return std::make_unique<TaskThread>(name);
    };
    factory.switch_handler = [this]() -> std::unique_ptr<Thread> {
      return std::make_unique<Thread>(
          true, MakeTask(journal_, "switch", [] { SleepFor(std::chrono::hours(1)); }), 0);
    };
    table_.SetFactory(std::move(factory));
    options_.ls_msg_batch_interval = 5;
    options_.ls_msg_wait = 1;
  }
  ~WorkerTableTest() override {
    table_.StopTaskThreads();
    table_.DeleteTaskThreadObjects();
  }

  std::vector<Worker> Existing() {
    std::vector<Worker> existing;
    for (size_t i = 0; i < kWorkerCount; ++i) {
      if (table_.Find(static_cast<Worker>(i)) != nullptr) existing.push_back(static_cast<Worker>(i));
    }
    return existing;
  }

  VirtualClock clock_;
  test::LogCapture capture_;
  Journal journal_;
  WorkerOptions options_;
  bool fail_database_ = false;
  WorkerTable table_;
};

TEST_F(WorkerTableTest, OptionsDecideWhichWorkersExist) {
  EXPECT_EQ(table_.StartTaskThreads(), 0);
  EXPECT_THAT(Existing(),
              ElementsAre(Worker::kLogicalSwitch, Worker::kHostSync, Worker::kPostHostSync,
                          Worker::kController, Worker::kHighPerformanceProfile, Worker::kDatabaseHandler));
  EXPECT_TRUE(capture_.Contains("[StartTaskThreads] Started all threads successfully"));
  table_.StopTaskThreads();
  table_.DeleteTaskThreadObjects();
  EXPECT_THAT(Existing(), IsEmpty());
  options_.ls_ack_batch_interval = 1;
  options_.scale_simulation = true;
  EXPECT_EQ(table_.StartTaskThreads(), 0);
  EXPECT_EQ(Existing().size(), kWorkerCount);
  EXPECT_EQ(table_.Find(Worker::kScaleSim)->name(), "scaleSimTaskThread");
}

// All workers must get the stop before the first is joined, or a worker that feeds another keeps it alive.
TEST_F(WorkerTableTest, StopsAllBeforeJoiningAny) {
  EXPECT_EQ(table_.StartTaskThreads(), 0);
  EXPECT_TRUE(table_.AddTask(Worker::kPostHostSync,
                             MakeTask(journal_, "slow", [] { SleepFor(std::chrono::seconds(30)); })));
  clock_.RunFor(std::chrono::seconds(3));
  capture_.Clear();
  table_.StopTaskThreads();
  std::vector<std::string> order;
  for (const std::string& text : capture_.Texts()) {
    if (text.find("requested to stop") != std::string::npos) {
      order.push_back("stop " + text.substr(12, text.find(':') - 12));
    } else if (text.find("waiting for ") != std::string::npos) {
      order.push_back("join " + text.substr(30, text.find(" [0x") - 30));
    }
  }
  EXPECT_THAT(order, ElementsAre("stop logicalSwitchTaskThread", "stop hostSyncTaskThread",
                                 "stop postHostSyncTaskThread", "stop highPerformanceProfileTaskThread",
                                 "stop controllerTaskThread", "stop databaseHandlerThread",
                                 "join logicalSwitchTaskThread", "join hostSyncTaskThread",
                                 "join postHostSyncTaskThread", "join highPerformanceProfileTaskThread",
                                 "join controllerTaskThread", "join databaseHandlerThread"));
  EXPECT_FALSE(table_.AddTask(Worker::kLogicalSwitch, MakeTask(journal_, "late")));
}

TEST_F(WorkerTableTest, AFailedStartLeavesTheStartedWorkersRunning) {
  fail_database_ = true;
  EXPECT_EQ(table_.StartTaskThreads(), -1);
  EXPECT_TRUE(capture_.Contains(
      "errorCode=\"MPA44097\"] [StartTaskThreads] failed to start databaseHandlerThread: no store"));
  EXPECT_EQ(Existing().size(), 5u);
  table_.StopTaskThreads();
  table_.DeleteTaskThreadObjects();
  fail_database_ = false;
  EXPECT_EQ(table_.StartTaskThreads(), 0);
}

TEST_F(WorkerTableTest, ShutDownStartsNothing) {
  table_.SetZemaShutDown();
  EXPECT_EQ(table_.StartTaskThreads(), 0);
  EXPECT_THAT(Existing(), IsEmpty());
  EXPECT_TRUE(capture_.Contains("[StartTaskThreads] Agent is shutting down, skip StartTaskThreads"));
}

TEST_F(WorkerTableTest, TasksForAMissingWorkerAreLoggedAndDestroyed) {
  EXPECT_EQ(AddHostConfigTask(table_, MakeTask(journal_, "host")).error(),
            "HostConfigTask is ignored because of no HostConfig thread.");
  EXPECT_FALSE(AddVtepRecoveryTask(table_, MakeTask(journal_, "recovery")));
  EXPECT_FALSE(AddVtepAdminStateTask(table_, MakeTask(journal_, "admin")));
  EXPECT_FALSE(AddHighPerformanceProfileTask(table_, MakeTask(journal_, "profile")));
  EXPECT_FALSE(AddCklnHotSwapTask(table_, MakeTask(journal_, "swap"), 1));
  EXPECT_THAT(journal_.Take(), ElementsAre("~host", "~recovery", "~admin", "~profile", "~swap"));
  for (const char* line :
       {"] is ignored because of no HostConfig thread.", "] VtepRecoveryTask [0x", "] vtepAdminStateTask [0x",
        "] HotSwapUnusedCkln Task is ignored because of no HostConfig",
        "] is ignored because of no highPerformanceProfile thread."}) {
    EXPECT_TRUE(capture_.Contains(line)) << line;
  }

  EXPECT_EQ(table_.StartWorker(Worker::kHostSync, "StartHostSyncTaskThread"), 0);
  EXPECT_EQ(table_.StartWorker(Worker::kHostSync, "StartHostSyncTaskThread"), 0);
  EXPECT_TRUE(AddHostConfigTask(table_, MakeTask(journal_, "host")));
  EXPECT_TRUE(AddCklnHotSwapTask(table_, MakeTask(journal_, "swap"), 1));
  clock_.RunFor(std::chrono::seconds(2));
  EXPECT_THAT(journal_.Take(), ElementsAre("host", "swap"));
}

TEST_F(WorkerTableTest, SwitchHandlerStartsAndStops) {
  EXPECT_EQ(table_.StartSwitchHandler(), 0);
  clock_.RunFor(std::chrono::seconds(1));
  table_.StopSwitchHandler();
  table_.StopSwitchHandler();
  EXPECT_EQ(capture_.Count("[StopSwitchHandler] waiting for corvdHandler thread to exit..."), 1u);
  EXPECT_THAT(journal_.Take(), ElementsAre("switch"));
}

}  // namespace
}  // namespace zem::zema
