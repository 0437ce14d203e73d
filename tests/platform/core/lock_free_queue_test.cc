#include "platform/core/lock_free_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "platform/core/thread.h"

namespace zem {
namespace {

TEST(LockFreeQueueTest, HoldsItsCapacityInOrderAgainAndAgain) {
  LockFreeQueue<uint64_t> queue(3);
  uint64_t value = 0;
  for (uint64_t round = 0; round < 10; ++round) {
    EXPECT_FALSE(queue.Pop(&value));
    for (uint64_t i = 0; i < 3; ++i) EXPECT_TRUE(queue.Push(round + i));
    EXPECT_FALSE(queue.Push(9));
    for (uint64_t i = 0; i < 3; ++i) {
      ASSERT_TRUE(queue.Pop(&value));
      EXPECT_EQ(value, round + i);
    }
  }
}

// A node that comes to another life in the middle of somebody's operation would lose or double a value.
TEST(LockFreeQueueTest, ManyThreadsLoseAndDoubleNothing) {
  constexpr uint64_t kEach = 5000;
  constexpr uint64_t kThreads = 3;
  LockFreeQueue<uint64_t> queue(4);
  std::vector<std::vector<uint64_t>> taken(kThreads);
  std::atomic<uint64_t> left = kThreads * kEach;
  {
    std::vector<NativeThread> threads;
    for (uint64_t of = 0; of < kThreads; ++of) {
      threads.emplace_back([&queue, of] {
        for (uint64_t i = 0; i < kEach;) i += queue.Push(of * kEach + i) ? 1 : 0;
      });
      threads.emplace_back([&, of] {
        uint64_t value = 0;
        while (left > 0) {
          if (!queue.Pop(&value)) continue;
          taken[of].push_back(value);
          --left;
        }
      });
    }
  }
  std::vector<int> seen(kThreads * kEach);
  for (const auto& values : taken) {
    std::vector<uint64_t> last(kThreads);
    for (const uint64_t value : values) {
      ++seen[value];
      EXPECT_GE(value % kEach + 1, last[value / kEach]) << "out of its producer's order";
      last[value / kEach] = value % kEach + 1;
    }
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), static_cast<long>(seen.size()));
}

}  // namespace
}  // namespace zem
