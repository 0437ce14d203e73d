#include "platform/provider/provider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <boost/property_tree/ptree.hpp>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "platform/core/thread.h"
#include "platform/core/virtual_clock.h"
#include "platform/provider/timer.h"

namespace zem {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;

class ProviderTest : public ::testing::Test {
 protected:
  ProviderTest() { provider_.RunAsync(1); }
  ~ProviderTest() override { provider_.StopAndWait(false); }

  int64_t Since(TimePoint begin) { return (clock_.Now() - begin) / milliseconds(1); }

  VirtualClock clock_;
  AsioZemProvider provider_;
};

// The pace is kept although calls take time: no drift, no heap of missed calls.
TEST_F(ProviderTest, RepeatedTimersKeepTheirPaceAndSwallowWhatTheyMissed) {
  const TimePoint begin = clock_.Now();
  std::vector<int64_t> calls;
  const auto timer = provider_.timers().ScheduleRepeated(
      seconds(10),
      [&] {
        calls.push_back(Since(begin));
        if (calls.size() == 2) SleepFor(seconds(25));
        if (calls.size() == 3) SleepFor(seconds(3));
      },
      TimerOptions::Default);
  clock_.RunFor(seconds(71));
  timer->Cancel();
  clock_.RunFor(seconds(100));
  EXPECT_THAT(calls, ElementsAre(10000, 20000, 50000, 60000, 70000));
}

// An attempt holds its timer, whose function holds the attempt.
TEST_F(ProviderTest, TheStopFreesWhatTimersAndTheirOwnersHoldOfEachOther) {
  struct Attempt {
    std::shared_ptr<Timer> timer;
  };
  std::vector<std::weak_ptr<Attempt>> attempts;
  const auto begin = [&](bool repeated) {
    const auto attempt = std::make_shared<Attempt>();
    attempts.push_back(attempt);
    attempt->timer = repeated ? provider_.timers().ScheduleRepeated(
                                    seconds(1), [attempt] {}, TimerOptions::Default)
                              : provider_.timers().Schedule(seconds(60), [attempt] {});
  };
  begin(false);
  begin(true);
  clock_.RunFor(seconds(2));
  provider_.StopAndWait(false);
  begin(false);
  begin(true);
  for (const auto& attempt : attempts) EXPECT_TRUE(attempt.expired());
}

TEST_F(ProviderTest, ACancelledTimerDoesNotRunAlsoFromItsOwnFunction) {
  std::atomic<int> calls = 0;
  const auto cancelled = provider_.timers().Schedule(seconds(1), [&] { calls += 100; });
  std::shared_ptr<Timer> own;
  own = provider_.timers().ScheduleRepeated(
      seconds(1),
      [&] {
        ++calls;
        own->Cancel();
        own->Cancel();
      },
      TimerOptions::Default);
  // Due at the same moment: the first cancels the second.
  std::shared_ptr<Timer> second;
  provider_.timers().Schedule(seconds(2), [&] { second->Cancel(); });
  second = provider_.timers().Schedule(seconds(2), [&] { calls += 100; });
  cancelled->Cancel();
  clock_.RunFor(seconds(10));
  EXPECT_EQ(calls, 1);
}

TEST_F(ProviderTest, AFunctionThatThrowsDoesNotEndTheLoop) {
  std::atomic<int> ran = 0;
  provider_.dispatcher().Post([] { throw std::runtime_error("as asked"); });
  provider_.dispatcher().Post([&] { ++ran; });
  clock_.Settle();
  EXPECT_EQ(ran, 1);
}

TEST_F(ProviderTest, StopAndWaitRunsWhatIsPostedAndNoTimer) {
  std::atomic<int> ran = 0;
  provider_.timers().Schedule(seconds(1), [&] { ran += 100; });
  provider_.dispatcher().Post([&] {
    provider_.dispatcher().Post([&] { ++ran; });
    ++ran;
  });
  provider_.StopAndWait(true);
  EXPECT_EQ(ran, 2);
  EXPECT_TRUE(provider_.stopped());
  provider_.StopAndWait(true);
}

// A loop that posts to itself without end, and a stop from the loop's own thread, must not hang the process.
TEST_F(ProviderTest, StopsThatCouldHangDoNot) {
  {
    AsioZemProvider endless;
    endless.RunAsync(1);
    std::function<void()> again = [&] { endless.dispatcher().Post(again); };
    endless.dispatcher().Post(again);
    endless.StopAndWait(true);
  }

  AsioZemProvider other;
  other.RunAsync(1);
  other.dispatcher().Post([&] { other.StopAndWait(true); });
  clock_.Settle();
  EXPECT_TRUE(other.stopped());
}

// The attachment hears of the stop once, while its loop still lives, and goes before it.
TEST_F(ProviderTest, TheAttachmentIsStoppedThenDestroyed) {
  std::vector<std::string> order;
  {
    AsioZemProvider other;
    const auto make = [&] {
      AsioZemProvider::Attachment attachment;
      attachment.object = std::shared_ptr<int>(new int, [&](int* p) {
        order.emplace_back("gone");
        delete p;
      });
      attachment.stop = [&] { order.emplace_back("stop"); };
      return attachment;
    };
    const void* const first = other.Attach(make).get();
    EXPECT_EQ(other.Attach(make).get(), first);
    other.StopAndWait(true);
    other.Stop();
  }
  EXPECT_THAT(order, ElementsAre("stop", "gone"));
}

}  // namespace
}  // namespace zem
