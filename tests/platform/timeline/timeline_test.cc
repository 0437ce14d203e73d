#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <optional>

#include "platform/core/thread.h"
#include "platform/core/virtual_clock.h"
#include "platform/timeline/operation.h"
#include "platform/timeline/step.h"
#include "platform/wft/workflow_util.h"

namespace zem::timeline {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::SizeIs;

class TimelineTest : public testing::Test {
 protected:
  ~TimelineTest() override {
    SetFailureHook(nullptr);
    Clear();
  }
  std::vector<std::string> NamesOf(const OperationReading& reading) {
    std::vector<std::string> names;
    for (const StepReading& step : reading.steps) names.push_back(std::string(step.depth, '>') + step.name);
    return names;
  }
};

// A step that is booked to another thread, at another time or depth, sends the operator to the wrong place.
TEST_F(TimelineTest, OneOperationIsFollowedThroughItsThreads) {
  VirtualClock clock;
  const OperationPtr operation = Begin(Kind::kVif, "attach", {"vif-1", "", "web", "vif-1"});
  Carried carried(operation);
  NativeThread worker({.name = "worker"}, [&] {
    SleepFor(milliseconds(30));
    const Scope scope(carried.operation());
    Waited("queue", carried.since());
    Step call("call", "on port");
    SleepFor(milliseconds(5));
    {
      Step inner("inner");
      inner.Result("refused", true);
    }
    call.ResultCode(0);
  });
  worker.Join();
  EXPECT_FALSE(Recording());
  Note("of nobody", "a thread without an operation");
  Finish(operation, "refused");
  Finish(operation, "a second end");

  const OperationReading reading = operation->Read();
  EXPECT_THAT(reading.keys, ElementsAre("vif-1", "web"));
  EXPECT_EQ(reading.state, State::kFailed);
  EXPECT_EQ(reading.error, "refused");
  EXPECT_THAT(NamesOf(reading), ElementsAre("queue", "call", ">inner"));
  EXPECT_EQ(reading.steps[0].duration_us, 30'000);
  EXPECT_EQ(reading.steps[1].start_us, 30'000);
  EXPECT_EQ(reading.steps[1].duration_us, 5'000);
  EXPECT_EQ(reading.steps[1].detail, "on port");
  EXPECT_EQ(reading.steps[1].result, "0");
  EXPECT_TRUE(reading.steps[2].failed);
  EXPECT_EQ(reading.steps[2].thread, "worker");
}

// The trace level is for the tracing: with it off an operator still has to see the steps.
TEST_F(TimelineTest, SpansAreStepsAtEveryTraceLevel) {
  wft::WorkflowUtil::SetTraceLevel(wft::kTraceOff);
  const OperationPtr operation = Begin(Kind::kVif, "attach", {});
  const wft::Stats before = wft::WorkflowUtil::GetStats();
  {
    const Scope scope(operation);
    const wft::Span root = wft::WorkflowUtil::StartRootSpan("root", wft::kTraceInfo);
    wft::WorkflowUtil::SetCurSpanTag(wft::tags::kVif, "vif-1");
    const wft::Span child = wft::WorkflowUtil::StartChildSpan("child", wft::kTraceDebug);
    wft::WorkflowUtil::SetCurSpanTag(wft::tags::kErrorMessage, "no port");
    EXPECT_FALSE(root.recorded());
  }
  wft::WorkflowUtil::SetTraceLevel(wft::kTraceInfo);
  EXPECT_EQ(wft::WorkflowUtil::GetStats().child.sampled_out, before.child.sampled_out + 1);
  const OperationReading reading = operation->Read();
  ASSERT_THAT(NamesOf(reading), ElementsAre("root", ">child"));
  EXPECT_EQ(reading.steps[0].detail, "VIF=vif-1");
  EXPECT_EQ(reading.steps[1].result, "no port");
  EXPECT_TRUE(reading.steps[1].failed);
}

// A walk over thousands of ports must not take the place of the failure behind it.
TEST_F(TimelineTest, ALongOperationKeepsItsEndAndItsBound) {
  const OperationPtr operation = Begin(Kind::kHostConfig, "revision 2", {"c-1"});
  {
    const Scope scope(operation);
    for (int i = 0; i < 5'000; ++i) {
      const Step get("get", std::to_string(i) + std::string(1'000, 'x'));
    }
    for (int i = 0; i < 5'000; ++i) {
      const Step set(i % 2 == 0 ? "set" : "clear", "port");
    }
    Step last("last");
    last.Result("the reason", true);
    Note("answered", "error");
  }
  const OperationReading reading = operation->Read();
  EXPECT_LE(operation->bytes(), size_t{64} << 10);
  EXPECT_GT(reading.left_out, 1'000u);
  EXPECT_EQ(reading.steps.back().name, "answered");
  const StepReading& failure = reading.steps[reading.steps.size() - 2];
  EXPECT_EQ(failure.result, "the reason");
  EXPECT_TRUE(failure.failed);
  uint64_t gets = 0;
  for (const StepReading& step : reading.steps) gets += step.name == "get" ? 1 : 0;
  EXPECT_LT(gets, 200u);
}

// A boot storm of VMs must not push out the configuration before it, nor the one VIF that failed.
TEST_F(TimelineTest, AStormOfOneKindLeavesTheOthers) {
  Finish(Begin(Kind::kHostConfig, "revision 1", {"c-1"}), {});
  Finish(Begin(Kind::kVif, "attach", {"vif-bad"}), "refused");
  for (int i = 0; i < 1'000; ++i) {
    const OperationPtr operation = Begin(Kind::kVif, "attach", {"vif-" + std::to_string(i)});
    const Scope scope(operation);
    for (int step = 0; step < 500; ++step) Note("step", std::string(200, 'x'));
    Finish(operation, {});
  }
  EXPECT_THAT(Find("c-1", 10), SizeIs(1));
  EXPECT_THAT(Find("vif-bad", 10), SizeIs(1));
  EXPECT_THAT(Find("vif-999", 10), SizeIs(1));
  EXPECT_THAT(Find("vif-0", 10), SizeIs(0));
  size_t bytes = 0;
  for (const OperationPtr& each : Find({}, 10'000)) bytes += each->bytes();
  EXPECT_LE(bytes, size_t{9} << 20);
  EXPECT_THAT(Find({}, 3), SizeIs(3));
}

// In a storm those that hang are the oldest, and the ones that are asked about.
TEST_F(TimelineTest, WhatIsUnderWayStaysInAStorm) {
  std::vector<OperationPtr> hung;
  for (int i = 0; i < 200; ++i) hung.push_back(Begin(Kind::kVif, "attach", {"hung-" + std::to_string(i)}));
  for (int i = 0; i < 2'000; ++i) Finish(Begin(Kind::kVif, "attach", {"vif-" + std::to_string(i)}), {});
  for (int i = 0; i < 200; ++i) EXPECT_THAT(Find("hung-" + std::to_string(i), 2), SizeIs(1)) << i;
  for (const OperationPtr& each : hung) Finish(each, {});
  for (int i = 0; i < 200; ++i) Finish(Begin(Kind::kVif, "attach", {"late-" + std::to_string(i)}), {});
  EXPECT_THAT(Find({}, 10'000), SizeIs(128));
  for (int i = 0; i < 5'000; ++i) hung.push_back(Begin(Kind::kVif, "attach", {}));
  EXPECT_THAT(Find({}, 10'000), SizeIs(1'024));
}

// A record keeps only what differs from the one before; whoever reads it must not see that.
TEST_F(TimelineTest, TextsReadAsTheyWereGiven) {
  const OperationPtr operation = Begin(Kind::kVif, "attach", {});
  const OperationPtr other = Begin(Kind::kVif, "detach", {});
  const std::string longest(300, 'y');
  std::vector<std::string> given;
  {
    const Scope scope(operation);
    for (const std::string& text :
         {std::string("switch port-1 alias"), std::string("switch port-1 block"),
          std::string("switch port-1"), std::string(), std::string("switch port-2"), longest, longest}) {
      Step call("call", text);
      {
        const Scope inner_scope(other);
        Note("elsewhere", "switch");
        Step inner("inner", text + "!");
        inner.Detail("key", text);
      }
      call.Detail("port", "port-1");
      given.push_back(text.substr(0, 240) + (text.empty() ? "" : " ") + "port=port-1");
    }
  }
  std::vector<std::string> read;
  for (const StepReading& step : operation->Read().steps) read.push_back(step.detail);
  EXPECT_EQ(read, given);
  EXPECT_EQ(other->Read().steps.at(1).detail, "switch port-1 alias! key=switch port-1 alias");
  EXPECT_EQ(other->Read().steps.back().detail, longest.substr(0, 240) + " key=" + longest.substr(0, 240));
}

// However deep and full, a step that has ended reads as ended.
TEST_F(TimelineTest, DeepAndFullStepsHaveTheirEnds) {
  const OperationPtr operation = Begin(Kind::kVif, "attach", {});
  const Scope scope(operation);
  const std::function<void(int)> descend = [&](int left) {
    Step step(left % 2 == 0 ? "even" : "odd", std::to_string(left));
    if (left > 0) descend(left - 1);
    step.Result(std::string(100, 'r'), left == 39);
  };
  for (int i = 0; i < 50; ++i) descend(40);
  const OperationReading reading = operation->Read();
  EXPECT_GT(reading.left_out, 0u);
  EXPECT_LE(operation->bytes(), size_t{64} << 10);
  for (const StepReading& step : reading.steps) EXPECT_GE(step.duration_us, 0) << step.name << step.detail;
  for (const StepReading& step : reading.steps)
    EXPECT_EQ(step.failed, step.detail == "39" || step.name == "failed");
}

// An operation that hands over work without end must not grow with it; below its bound none of it is left
// out.
TEST_F(TimelineTest, ManyHandOversAreBounded) {
  const OperationPtr operation = Begin(Kind::kHostConfig, "revision 1", {});
  const auto hand_over = [&](int count) {
    for (int i = 0; i < count; ++i) {
      const Scope scope(operation);
      const Step outer("outer");
      const Scope again(operation);
      Note("step", "done");
    }
  };
  hand_over(100);
  EXPECT_EQ(operation->Read().left_out, 0u);
  EXPECT_THAT(operation->Read().steps, SizeIs(200));
  EXPECT_EQ(operation->Read().steps.back().depth, 1u);
  hand_over(100'000);
  EXPECT_LE(operation->bytes(), size_t{64} << 10);
  EXPECT_GT(operation->Read().left_out, 1'000u);
}

// An operation that hangs is asked about while its threads write; the sanitizers watch.
TEST_F(TimelineTest, ItIsReadWhileItIsWritten) {
  for (int round = 0; round < 10; ++round) {
    const OperationPtr operation = Begin(Kind::kVif, "attach", {"vif-1"});
    std::atomic<int> running{2};
    const auto write = [&] {
      const Scope scope(operation);
      for (int i = 0; i < 80; ++i) {
        Step step("step");
        step.Detail("key", "value");
        step.Result("done", i % 3 == 0);
        operation->AddKey("key " + std::to_string(i));
      }
      --running;
    };
    NativeThread one(write);
    NativeThread two(write);
    while (running != 0) {
      for (const StepReading& step : operation->Read().steps)
        ASSERT_TRUE(step.duration_us < 0 || step.result == "done");
    }
    one.Join();
    two.Join();
    EXPECT_THAT(operation->Read().keys, SizeIs(81));
    for (int i = 0; i < 300; ++i) operation->AddKey("key " + std::to_string(i));
    EXPECT_THAT(operation->Read().keys, SizeIs(128));
  }
}

// A result for which there is no room must not read as a step without one.
TEST_F(TimelineTest, AResultWithoutRoomSaysSo) {
  const OperationPtr operation = Begin(Kind::kVif, "attach", {"vif-1"});
  const Scope scope(operation);
  const std::string detail(200, 'x');
  std::optional<Step> last;
  for (int i = 0; i < 400; ++i) {
    last.emplace(i % 2 == 0 ? "get" : "put", detail);
    last->Result(detail, false);
  }
  last.reset();
  int left_out = 0;
  for (const StepReading& step : operation->Read().steps) {
    if (step.result == "(left out)")
      ++left_out;
    else
      ASSERT_EQ(step.result, detail);
  }
  EXPECT_GT(left_out, 0);
}

// A reader that is in one chunk while the writer goes on to the next one must not miss what came between.
TEST_F(TimelineTest, AReaderSeesEverythingUpToAMoment) {
  for (int round = 0; round < 20; ++round) {
    const OperationPtr operation = Begin(Kind::kVif, "attach", {"vif-1"});
    std::atomic<bool> done{false};
    NativeThread writer([&] {
      const Scope scope(operation);
      for (int i = 0; i < 400; ++i) const Step step("step", "switch port " + std::to_string(i));
      done = true;
    });
    for (bool last = false; !last;) {
      last = done;
      const std::vector<StepReading> steps = operation->Read().steps;
      for (size_t i = 0; i < steps.size(); ++i) {
        const bool open = steps[i].duration_us < 0 && i + 1 == steps.size();
        if (open && steps[i].detail.empty()) continue;
        ASSERT_EQ(steps[i].detail, "switch port " + std::to_string(i));
        ASSERT_TRUE(open || steps[i].duration_us >= 0) << i;
      }
    }
    writer.Join();
    EXPECT_THAT(operation->Read().steps, SizeIs(400));
  }
}

// Steps that share a record may have others in them, whose times are their own.
TEST_F(TimelineTest, AJoinedStepLeavesTheTimesOfThoseInIt) {
  VirtualClock clock;
  const OperationPtr operation = Begin(Kind::kVif, "attach", {});
  const Scope scope(operation);
  const std::string detail(200, 'x');
  for (int i = 0; operation->bytes() < (size_t{30} << 10); ++i)
    const Step fill(i % 2 == 0 ? "a" : "b", detail);
  { const Step port("port"); }
  {
    Step port("port");
    { const Step inner("inner"); }
    Note("answered", "yes");
    SleepFor(milliseconds(7));
    port.Result("refused", true);
    SleepFor(milliseconds(5));
  }
  const std::vector<StepReading> steps = operation->Read().steps;
  ASSERT_GT(steps.size(), 4u);
  EXPECT_THAT(steps[steps.size() - 4].detail, testing::StartsWith("2 calls"));
  for (size_t i = steps.size() - 3; i < steps.size(); ++i)
    EXPECT_EQ(steps[i].duration_us, 0) << steps[i].name;
}

// Two calls in a row on names of the greatest length.
TEST_F(TimelineTest, TheSameLongestTextTwice) {
  const OperationPtr operation = Begin(Kind::kVif, "attach", {});
  const Scope scope(operation);
  const std::string longest(300, 'y');
  for (int i = 0; i < 3; ++i) const Step call("call", longest);
  for (const StepReading& step : operation->Read().steps) EXPECT_EQ(step.detail, longest.substr(0, 240));
}

}  // namespace
}  // namespace zem::timeline
