// The delivery over the real channel, with the simulated manager at its other end.

#include <chrono>

#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/channel/mpa_channel.h"
#include "app/ctxteng/idfw/login_logoff_info_cache.h"
#include "app/ctxteng/idfw/login_logoff_info_router.h"
#include "sim/idfw/logon_receiver.h"
#include "tests/mpaclient/channel_fixture.h"

namespace Ctxt {
namespace {

using std::chrono::seconds;
using zem::sim::LogonReceiver;

class ManagerLinkTest : public zem::ChannelTest {
 protected:
  ManagerLinkTest() {
    channel.Initialize(provider);
    StartManager();
    proxy_client->Start();
    router.Connect();
    clock.RunFor(seconds(30));
    router.Start();
  }
  ~ManagerLinkTest() override { channel.Shutdown(); }

  void Give() {
    auto info = std::make_unique<LoginLogoffInfo>();
    info->sessionId = ++given;
    info->vcUuid = "502a1122-3344-5566-7788-99aabbccdd01";
    info->biosUuid = "42000000000000000000000000000001";
    router.listener().OnEvent(std::move(info));
  }
  // How often the newest batch came.
  uint64_t Times() { return receiver.state().kept.empty() ? 0 : receiver.state().kept.back().times; }

  MpaChannel link;
  CtxtChannel channel{link};
  LogonReceiver receiver{*manager, [] { return uint64_t{1}; }};
  LoginLogoffInfoRouter router{{.cache_limit = 1000,
                                .timer_interval = 60,
                                .ack_timeout = 10,
                                .cache_threshold = 100,
                                .max_backoff_counter = 8},
                               channel};
  uint32_t given = 0;
};

TEST_F(ManagerLinkTest, WhatTheManagerAnswers) {
  struct Case {
    LogonReceiver::Kind kind;
    uint64_t times;
    const char* line;
  };
  for (const Case& c :
       {Case{LogonReceiver::Kind::kOk, 1, "successfully"},
        Case{LogonReceiver::Kind::kStatus, 2, "error_msg from IDFW-Vertical is: busy"},
        Case{LogonReceiver::Kind::kNever, 2, "Ack from MP IDFW-Vertical timed out"},
        Case{LogonReceiver::Kind::kGarbage, 2, "Error in deserializing to LoginLogoffEventAck"},
        Case{LogonReceiver::Kind::kOtherType, 2, "Idfw: Invalid payload type: "},
        Case{LogonReceiver::Kind::kForeignId, 2, "The ackMsg correlation ID does not match"}}) {
    SCOPED_TRACE(c.line);
    log.Clear();
    receiver.SetAnswers({.kind = c.kind, .status = 5, .text = "busy", .count = 1});
    Give();
    clock.RunFor(seconds(60 + 10 + 120 + 10));
    EXPECT_EQ(Times(), c.times);
    EXPECT_TRUE(log.Contains(c.line));
    EXPECT_EQ(receiver.state().acknowledged, given);
  }
  EXPECT_EQ(receiver.state().batches, given);
  EXPECT_THAT(receiver.state().violations, testing::IsEmpty());
}

// The link goes before the batch, on the way of the answer, and the answer comes when nobody waits any more.
TEST_F(ManagerLinkTest, LinkThatIsLostAtEachPoint) {
  manager->StopProxy();
  Give();
  clock.RunFor(seconds(100));
  EXPECT_EQ(receiver.state().received, 0u);
  manager->StartProxy();
  clock.RunFor(seconds(120));
  EXPECT_EQ(receiver.state().acknowledged, 1u);

  receiver.SetDelay(seconds(5));
  Give();
  for (int i = 0; i < 120 && receiver.state().events < 2; ++i) clock.RunFor(seconds(1));
  manager->StopProxy();
  clock.RunFor(seconds(20));
  manager->StartProxy();
  clock.RunFor(seconds(130));
  EXPECT_EQ(Times(), 2u);

  receiver.SetDelay(seconds(15));
  Give();
  clock.RunFor(seconds(60 + 120));
  receiver.SetDelay(zem::Duration::zero());
  clock.RunFor(seconds(300));
  EXPECT_EQ(log.Count("Idfw: Sent login/logoff message to ZEM Manager successfully"), 3u);
  EXPECT_EQ(receiver.state().batches, 3u);
  EXPECT_EQ(receiver.state().events, 3u);
  EXPECT_THAT(receiver.state().violations, testing::IsEmpty());
}

}  // namespace
}  // namespace Ctxt
