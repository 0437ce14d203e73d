#include "app/ctxteng/introspection/mux_pusher.h"

#include <gmock/gmock.h>

#include "platform/core/virtual_clock.h"
#include "tests/app/ctxteng/introspection/mux_store.h"
#include "tests/support/log_capture.h"

namespace Ctxt {
namespace {

using testing::ElementsAre;

class MuxPusherTest : public testing::Test {
 protected:
  orlane::zem::ouvi::MuxConfigMsg Config() const { return {}; }

  zem::VirtualClock clock;
  zem::test::LogCapture log;
  const std::shared_ptr<test::MuxStore> mux_port = std::make_shared<test::MuxStore>();
  test::MuxStore& mux = *mux_port;
  std::atomic<int> resends{0};
  MuxPusher pusher{mux_port, [this] { ++resends; }};
};

TEST_F(MuxPusherTest, FailedPushMovesOnlyAnUnknownState) {
  mux.status = 0x10005;
  EXPECT_EQ(pusher.Push(Config()), 0x10005U);
  EXPECT_EQ(pusher.state(), MUX_DISCONNECTED);
  EXPECT_TRUE(log.Contains("Changing muxConnectionState from UNINITIALIZED to MUX_DISCONNECTED"));
  pusher.SetState(MUX_CONNECTED);
  EXPECT_EQ(pusher.Push(Config()), 0x10005U);
  EXPECT_EQ(pusher.state(), MUX_CONNECTED);
}

// The multiplexer comes while a push to it fails: without another try nobody would send this configuration.
TEST_F(MuxPusherTest, PushThatMissesTheConnectIsTriedOnceMore) {
  pusher.SetState(MUX_DISCONNECTED);
  mux.status = 0x10005;
  mux.Hold(true);
  pusher.Post([this] { pusher.Push(Config()); });
  clock.Settle();
  pusher.SetState(MUX_CONNECTED);
  mux.Hold(false);
  clock.Settle();
  EXPECT_THAT(mux.TakeLog(), ElementsAre("vm refused", "vm refused"));
}

TEST_F(MuxPusherTest, OverflowAsksForEverythingAgain) {
  mux.Hold(true);
  std::atomic<int> done{0};
  pusher.Post([this] { pusher.Push(Config()); });
  clock.Settle();
  for (size_t i = 0; i <= MuxPusher::kMostTasks; ++i) pusher.Post([&done] { ++done; });
  mux.Hold(false);
  clock.Settle();
  EXPECT_EQ(resends, 1);
  EXPECT_EQ(done, 0);
  pusher.Post([] { throw std::runtime_error("bad task"); });
  pusher.Post([&done] { ++done; });
  clock.Settle();
  EXPECT_EQ(done, 1) << "the queue goes on after a task that failed";
  pusher.Stop();
  pusher.Post([&done] { ++done; });
  clock.Settle();
  EXPECT_EQ(done, 1);
}

}  // namespace
}  // namespace Ctxt
