#include "framework/status/status_board.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/core/condition.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/thread.h"
#include "platform/core/virtual_clock.h"
#include "platform/metrics/metrics.h"
#include "platform/metrics/queue_gauge.h"
#include "platform/provider/work_group.h"

namespace zem::Tarvik {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

class StatusBoardTest : public ::testing::Test {
 protected:
  StatusBoardTest() {
    group_->Start(1);
    board_->SetPhase(StatusBoard::Phase::kServing);
    board_->AddSource("store", [this](std::vector<PartState>* parts) {
      parts->push_back({"store", fault_, "wait"});
    });
  }
  ~StatusBoardTest() override {
    board_->Close();
    group_->Stop();
  }

  std::string FaultOf(const std::string& part) {
    for (const StatusBoard::Fault& fault : board_->Read().faults) {
      if (fault.state.part == part) return fault.state.fault;
    }
    return "none";
  }

  VirtualClock clock_;
  metrics::Registry metrics_;
  const boost::intrusive_ptr<WorkGroup> group_{new WorkGroup("test", metrics_, WorkGroup::kUnbounded)};
  std::string fault_;
  const std::shared_ptr<StatusBoard> board_ = std::make_shared<StatusBoard>(group_);
};

// "Since when" has to survive a changing text, and must not survive a recovery.
TEST_F(StatusBoardTest, FaultKeepsItsTimeUntilItEnds) {
  EXPECT_THAT(board_->Read().well, ElementsAre("store"));
  fault_ = "away";
  EXPECT_EQ(board_->Read().faults.at(0).age, 0s);
  clock_.RunFor(30s);
  fault_ = "still away";
  const StatusBoard::Report report = board_->Read();
  EXPECT_EQ(report.faults.at(0).age, 30s);
  EXPECT_EQ(report.faults.at(0).state.fault, "still away");
  fault_.clear();
  EXPECT_THAT(board_->Read().faults, IsEmpty());
  clock_.RunFor(30s);
  fault_ = "away";
  EXPECT_EQ(board_->Read().faults.at(0).age, 0s);
}

// A part that hangs must not take the answer away; what was known before is told with it.
TEST_F(StatusBoardTest, PartThatHangsIsToldAndDelaysNobody) {
  fault_ = "away";
  static_cast<void>(board_->Read());
  std::mutex mutex;
  Condition released;
  bool free = false;
  board_->AddSource("engine", [&](std::vector<PartState>* parts) {
    std::unique_lock lock(mutex);
    released.Wait(lock, [&] { return free; });
    parts->push_back({"engine", {}, {}});
  });
  StatusBoard::Report report;
  NativeThread reader([&] { report = board_->Read(); });
  clock_.RunFor(StatusBoard::kPatience);
  reader.Join();
  ASSERT_EQ(report.faults.size(), 2u);
  EXPECT_EQ(report.faults[0].state.part, "engine");
  EXPECT_THAT(report.faults[0].state.fault, HasSubstr("does not tell its state"));
  EXPECT_EQ(report.faults[1].state.fault, "away");
  {
    const std::lock_guard lock(mutex);
    free = true;
  }
  released.NotifyAll();
  clock_.Settle();
  EXPECT_EQ(FaultOf("engine"), "none");
}

TEST_F(StatusBoardTest, SourceThatThrowsIsAFaultOfItsPart) {
  board_->AddSource("engine", [](std::vector<PartState>*) { throw std::runtime_error("no memory"); });
  EXPECT_EQ(FaultOf("engine"), "its state cannot be read: no memory");
  EXPECT_EQ(FaultOf("store"), "none");
}

// Two queues of one name, one of which drops: the fault ends ten minutes later, and not never.
TEST_F(StatusBoardTest, DropsAreToldForTenMinutes) {
  QueueGauge first("requests", 10);
  QueueGauge second("requests", 10);
  EXPECT_EQ(FaultOf("queue requests"), "none");
  second.Refused();
  EXPECT_EQ(FaultOf("queue requests"), "1 dropped, 0 of 20 wait");
  clock_.RunFor(9min);
  EXPECT_EQ(FaultOf("queue requests"), "1 dropped, 0 of 20 wait");
  clock_.RunFor(2min);
  EXPECT_EQ(FaultOf("queue requests"), "none");
}

TEST_F(StatusBoardTest, PromptLoopThatDoesNotAnswerIsTold) {
  const LoopThread loop("test loop", LoopKind::kPrompt);
  const LoopStep step("waits for the disk");
  clock_.RunFor(3s);
  EXPECT_THAT(FaultOf("loop test loop"), HasSubstr("at \"waits for the disk\" for 3 s"));
}

TEST_F(StatusBoardTest, PhasesComeFirst) {
  fault_ = "away";
  board_->SetPhase(StatusBoard::Phase::kStarting, "store client");
  clock_.RunFor(5s);
  const StatusBoard::Report starting = board_->Read();
  EXPECT_EQ(starting.faults.at(0).state.fault, "the start is at \"store client\"");
  EXPECT_EQ(starting.faults.at(0).age, 5s);
  EXPECT_EQ(starting.faults.at(1).state.part, "store");
  board_->SetPhase(StatusBoard::Phase::kStopping);
  board_->Close();
  EXPECT_EQ(board_->Read().faults.at(0).state.part, "stopping");
}

}  // namespace
}  // namespace zem::Tarvik
