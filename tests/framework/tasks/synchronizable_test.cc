#include "framework/tasks/synchronizable.h"

#include <gtest/gtest.h>

#include <optional>

#include "platform/core/thread.h"
#include "platform/core/virtual_clock.h"
#include "tests/support/log_capture.h"

namespace zem {
namespace {

using std::chrono::seconds;

TEST(SynchronizableTest, KnowsItsHolderAndTellsLongWaits) {
  VirtualClock clock;
  test::LogCapture capture;
  Synchronizable table;
  struct Case {
    int wait;
    size_t lines;
  };
  for (const Case& c : {Case{10, 0}, Case{11, 1}}) {
    capture.Clear();
    auto held = std::make_optional<Synchronizer>(table, "first.cc", 7);
    EXPECT_STREQ(table.holder().file, "first.cc");
    EXPECT_EQ(table.holder().line, 7);
    EXPECT_EQ(table.holder().thread, pthread_self());
    NativeThread waiter([&] {
      const Synchronizer lock(table, "second.cc", 9);
      EXPECT_NE(table.holder().thread, static_cast<pthread_t>(-1));
    });
    clock.RunFor(seconds(c.wait));
    held.reset();
    waiter.Join();
    EXPECT_EQ(capture.Count("Synchronizable lock took [11] on threadId ["), c.lines);
    EXPECT_EQ(capture.Count("filename [second.cc] and line No. [9]"), c.lines);
    EXPECT_EQ(table.holder().file, nullptr);
    EXPECT_EQ(table.holder().line, -1);
  }
}

}  // namespace
}  // namespace zem
