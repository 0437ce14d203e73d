#include "app/ctxteng/flow/event_queue.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "platform/core/thread.h"

namespace Ctxt::PaceClient {
namespace {

TEST(EventQueueTest, TakesAsManyAsToldAndKeepsTheirOrder) {
  for (const uint32_t max : {0U, 1U, 7U, 8U, 1000U}) {
    EventQueue<std::shared_ptr<int>> queue(max);
    for (int turn = 0; turn < 3; ++turn) {
      for (uint32_t i = 0; i < max; ++i) {
        ASSERT_EQ(queue.TryPush(std::make_shared<int>(i)), QueuePush::kDone);
      }
      ASSERT_EQ(queue.TryPush(nullptr), QueuePush::kFull) << max;
      ASSERT_EQ(queue.count(), max);
      std::shared_ptr<int> value;
      for (uint32_t i = 0; i < max; ++i) {
        ASSERT_TRUE(queue.TryPop(&value));
        ASSERT_EQ(*value, static_cast<int>(i));
      }
      ASSERT_FALSE(queue.TryPop(&value));
    }
  }
}

// A value that is lost, doubled, or kept alive by an empty queue.
TEST(EventQueueTest, EachValueThatWasTakenComesOutOnce) {
  constexpr int kEach = 50000;
  constexpr int kProducers = 3;
  const auto token = std::make_shared<int>(0);
  using Value = std::pair<std::shared_ptr<int>, int>;
  EventQueue<Value> queue(64);
  std::vector<int> seen(kProducers * kEach);
  std::atomic<int> refused{0};
  std::atomic<bool> ended{false};
  std::vector<zem::NativeThread> threads;
  for (int producer = 0; producer < kProducers; ++producer) {
    threads.emplace_back([&, producer] {
      for (int i = 0; i < kEach; ++i) {
        const QueuePush pushed = queue.TryPush({token, producer * kEach + i});
        ASSERT_NE(pushed, QueuePush::kFailed);
        if (pushed == QueuePush::kFull) ++refused;
      }
    });
  }
  zem::NativeThread consumer([&] {
    Value value;
    while (true) {
      const bool last = ended;
      while (queue.TryPop(&value)) ++seen[static_cast<size_t>(value.second)];
      if (last) return;
    }
  });
  for (zem::NativeThread& thread : threads) thread.Join();
  ended = true;
  consumer.Join();
  int taken = 0;
  for (const int times : seen) {
    ASSERT_LE(times, 1);
    taken += times;
  }
  EXPECT_EQ(taken + refused, kProducers * kEach);
  EXPECT_EQ(queue.count(), 0U);
  EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
}  // namespace Ctxt::PaceClient
