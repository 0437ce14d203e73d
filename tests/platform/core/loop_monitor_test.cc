#include "platform/core/loop_monitor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>

#include "platform/core/lib_log.h"
#include "platform/core/thread.h"
#include "platform/core/virtual_clock.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/work_group.h"

namespace zem {
namespace {

LoopReading Named(const std::string& name) {
  const auto all = LoopThread::ReadAll();
  const auto found = std::find_if(all.begin(), all.end(), [&](const auto& one) { return one.name == name; });
  return found == all.end() ? LoopReading{} : *found;
}

int lines = 0;
std::string last_line;

class LoopMonitorTest : public testing::Test {
 protected:
  LoopMonitorTest() {
    lines = 0;
    SetLibraryLogSink([](LibraryLogLevel, const char*, std::string_view text) {
      ++lines;
      last_line = text;
    });
  }
  ~LoopMonitorTest() override { SetLibraryLogSink(nullptr); }

  VirtualClock clock_;
};

// A step that hangs is seen while it hangs, with its age; that is what the watchdog and the operator go by.
TEST_F(LoopMonitorTest, StepInProgressIsSeenFromOutside) {
  const LoopThread loop("worker", LoopKind::kPrompt);
  {
    const LoopStep step("first");
    clock_.RunFor(std::chrono::seconds(3));
    const LoopStep inner("part of it");
    LoopReading seen;
    NativeThread([&] { seen = Named("worker"); }).Join();
    EXPECT_TRUE(seen.busy);
    EXPECT_EQ(seen.step, "first");
    EXPECT_EQ(seen.age, std::chrono::seconds(3));
    EXPECT_EQ(seen.kind, LoopKind::kPrompt);
  }
  EXPECT_FALSE(Named("worker").busy);
  EXPECT_EQ(Named("worker").longest_step, "first");
  EXPECT_EQ(lines, 1);
  EXPECT_EQ(last_line, "loop worker: one step took 3000 ms: first");
  {
    const LoopStep again("first");
    clock_.RunFor(std::chrono::seconds(9));
  }
  EXPECT_EQ(lines, 1) << "told once";
  EXPECT_EQ(Named("worker").longest, std::chrono::seconds(9));
}

// A loop that lives in another one's step (the command server in a work group) is no endless step of that
// one.
TEST_F(LoopMonitorTest, InnerLoopSuspendsTheOuterOne) {
  const LoopThread outer("outer", LoopKind::kWorker);
  const LoopStep step("life of the inner one");
  {
    const LoopThread inner("inner", LoopKind::kPrompt);
    clock_.RunFor(std::chrono::hours(1));
    EXPECT_FALSE(Named("outer").busy);
    const LoopStep inner_step("its own");
    EXPECT_TRUE(Named("inner").busy);
  }
  EXPECT_TRUE(Named("inner").name.empty()) << "it has ended";
  EXPECT_TRUE(Named("outer").busy);
  EXPECT_EQ(Named("outer").age, Duration::zero());
}

TEST_F(LoopMonitorTest, StepsOutliveTheirLoop) {
  for (uint64_t life = 1; life <= 2; ++life) {
    const LoopThread loop("mortal", LoopKind::kWorker);
    const LoopStep step("work");
    EXPECT_EQ(LoopThread::StepsBefore()["mortal"], life - 1);
  }
  EXPECT_EQ(LoopThread::StepsBefore()["mortal"], 2u);
}

TEST_F(LoopMonitorTest, WorkGroupTellsWhatItRuns) {
  metrics::Registry registry;
  const boost::intrusive_ptr<WorkGroup> group(new WorkGroup("some group", registry, WorkGroup::kUnbounded));
  group->Start(1);
  LoopReading seen;
  ASSERT_TRUE(group->Enqueue(MakeWorkItem([&] { seen = Named("some group"); })));
  group->Stop();
  EXPECT_TRUE(seen.busy);
  EXPECT_NE(seen.step.find("WorkGroupTellsWhatItRuns"), std::string::npos) << seen.step;
}

}  // namespace
}  // namespace zem
