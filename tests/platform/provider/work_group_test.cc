#include "platform/provider/work_group.h"

#include <gtest/gtest.h>

#include <atomic>

#include "platform/core/virtual_clock.h"
#include "platform/metrics/metrics.h"

namespace zem {
namespace {

using std::chrono::seconds;

// What was taken is run, also at a stop; what comes after is refused instead of forgotten.
TEST(WorkGroupTest, StopDrainsThenRefuses) {
  VirtualClock clock;
  metrics::Registry metrics;
  boost::intrusive_ptr<WorkGroup> group(new WorkGroup("framework", metrics, WorkGroup::kUnbounded));
  group->Start(2);
  std::atomic<int> ran = 0;
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(group->Enqueue(MakeWorkItem([&] {
      SleepFor(seconds(1));
      ++ran;
    })));
  }
  clock.RunFor(seconds(10));
  EXPECT_EQ(ran, 20);
  group->Stop();
  EXPECT_EQ(ran, 100);
  EXPECT_FALSE(group->Enqueue(MakeWorkItem([&] { ++ran; })));
  EXPECT_EQ(ran, 100);
}

TEST(WorkGroupTest, TheLimitCountsWaitingItemsOnly) {
  VirtualClock clock;
  metrics::Registry metrics;
  boost::intrusive_ptr<WorkGroup> group(new WorkGroup("small", metrics, 2));
  group->Start(1);
  const auto item = MakeWorkItem([] { SleepFor(seconds(1)); });
  EXPECT_TRUE(group->Enqueue(item));
  clock.Settle();
  EXPECT_TRUE(group->Enqueue(item));
  EXPECT_TRUE(group->Enqueue(item));
  EXPECT_FALSE(group->Enqueue(item));
  clock.RunFor(seconds(1));
  EXPECT_TRUE(group->Enqueue(item));
  group->Stop();
}

}  // namespace
}  // namespace zem
