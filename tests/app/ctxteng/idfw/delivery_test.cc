#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <random>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/idfw/login_logoff_info_cache.h"
#include "app/ctxteng/idfw/login_logoff_info_messenger.h"
#include "app/ctxteng/idfw/login_logoff_info_router.h"
#include "app/ctxteng/idfw/login_logoff_signal.h"
#include "platform/core/thread.h"
#include "platform/core/virtual_clock.h"
#include "tests/app/ctxteng/idfw/fake_channel.h"
#include "tests/support/log_capture.h"

namespace Ctxt {
namespace {

using orlane::zem::context::idfw::LoginLogoffEventMsg;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::SizeIs;

std::unique_ptr<LoginLogoffInfo> Login(uint32_t session) {
  auto info = std::make_unique<LoginLogoffInfo>();
  info->sessionId = session;
  info->userName = "alice";
  info->vcUuid = "502a1122-3344-5566-7788-99aabbccdd01";
  info->biosUuid = "42000000000000000000000000000001";
  return info;
}

class DeliveryTest : public testing::Test {
 protected:
  void Start() {
    router = std::make_unique<LoginLogoffInfoRouter>(settings, channel);
    router->Connect();
    router->Start();
    clock.Settle();
  }
  void Give(uint32_t count) {
    for (; count > 0; --count) router->listener().OnEvent(Login(given++));
    clock.Settle();
  }
  // The sends so far, as seconds between them, counted from the start.
  std::vector<int64_t> Waits() {
    std::vector<int64_t> waits;
    zem::TimePoint before = start;
    for (const auto& sent : channel.sent) {
      waits.push_back(std::chrono::duration_cast<seconds>(sent.when - before).count());
      before = sent.when;
    }
    return waits;
  }
  std::vector<std::string> Ids() {
    std::vector<std::string> ids;
    for (const auto& sent : channel.sent) ids.push_back(sent.id);
    return ids;
  }
  std::vector<uint32_t> SessionsOf(size_t batch) {
    LoginLogoffEventMsg message;
    EXPECT_TRUE(message.ParseFromString(channel.sent.at(batch).bytes));
    std::vector<uint32_t> sessions;
    for (const auto& event : message.login_logoff_event()) sessions.push_back(event.session_id());
    return sessions;
  }

  zem::test::LogCapture log{zem::kLogInfo};
  zem::VirtualClock clock;
  const zem::TimePoint start = clock.Now();
  test::FakeChannel channel;
  LoginLogoffInfoRouter::Settings settings{.cache_limit = 1000,
                                           .timer_interval = 60,
                                           .ack_timeout = 10,
                                           .cache_threshold = 100,
                                           .max_backoff_counter = 8};
  std::unique_ptr<LoginLogoffInfoRouter> router;
  uint32_t given = 0;
};

TEST_F(DeliveryTest, BatchIsARequestWithItsIdAndAllThatWaits) {
  channel.AckAll();
  Start();
  EXPECT_EQ(channel.registered, "8888 IDFW-Vertical");
  clock.RunFor(seconds(60));
  EXPECT_THAT(channel.sent, SizeIs(0)) << "nothing waits";
  Give(3);
  clock.RunFor(seconds(60));
  Give(1);
  clock.RunFor(seconds(60));
  EXPECT_THAT(Ids(), ElementsAre("0", "1"));
  EXPECT_THAT(SessionsOf(0), ElementsAre(0, 1, 2));
  EXPECT_THAT(SessionsOf(1), ElementsAre(3));
  EXPECT_TRUE(channel.was_request);
  EXPECT_EQ(channel.last.msgType + " " + channel.last.appId + " " + channel.last.appType + " " +
                channel.last.payloadType,
            "com.orlane.zem.context 8888 IDFW-Vertical com.orlane.zem.context.idfw.LoginLogoffEventMsg");
  EXPECT_EQ(channel.last.payloadLen, channel.sent[1].bytes.size());
}

// A batch above what a frame holds would fail at each try, and nothing would come after it.
TEST_F(DeliveryTest, WhatOneMessageCannotHoldComesInSeveral) {
  constexpr size_t kLargest = 9 << 20;
  constexpr int kEvents = 5000;
  settings.cache_limit = kEvents;
  channel.on_send = [](const std::string&) { return -1; };
  Start();
  for (int i = 0; i < kEvents; ++i) {
    auto info = Login(given++);
    info->userName.assign(4000, 'u');
    router->listener().OnEvent(std::move(info));
  }
  clock.RunFor(seconds(60));
  EXPECT_THAT(Ids(), ElementsAre("0")) << "one at a time";
  channel.AckAll();
  clock.RunFor(seconds(120));
  EXPECT_THAT(Ids(), ElementsAre("0", "0", "1", "2"));
  std::vector<uint32_t> sessions;
  for (size_t i = 1; i < channel.sent.size(); ++i) {
    EXPECT_LT(channel.sent[i].bytes.size(), kLargest);
    for (const uint32_t session : SessionsOf(i)) sessions.push_back(session);
  }
  ASSERT_THAT(sessions, SizeIs(kEvents));
  EXPECT_TRUE(std::is_sorted(sessions.begin(), sessions.end()));
  EXPECT_EQ(router->messenger().replaced(), 0u);
}

// Waits of 60, 120, 240, 480 and 960 seconds; the last of them sends nothing, and the row begins again.
TEST_F(DeliveryTest, WholeRowOfWaitsWhileTheLinkIsDown) {
  channel.on_send = [](const std::string&) { return -1; };
  Start();
  Give(2);
  clock.RunFor(seconds(60 + 120 + 240 + 480));
  EXPECT_THAT(Waits(), ElementsAre(60, 120, 240, 480));
  clock.RunFor(seconds(960));
  EXPECT_EQ(log.Count("Restart backoff counts"), 1u);
  clock.RunFor(seconds(60));
  EXPECT_THAT(Waits(), ElementsAre(60, 120, 240, 480, 960 + 60));
  Give(1);
  channel.AckAll();
  clock.RunFor(seconds(120 + 60));
  EXPECT_THAT(Waits(), ElementsAre(60, 120, 240, 480, 1020, 120, 60)) << "a success ends the row";
  EXPECT_THAT(Ids(), ElementsAre("0", "0", "0", "0", "0", "0", "1"));
  for (size_t i = 1; i < 6; ++i) EXPECT_EQ(channel.sent[i].bytes, channel.sent[0].bytes) << i;
  EXPECT_THAT(SessionsOf(6), ElementsAre(2)) << "what came meanwhile has waited";
}

// The interval's options have no bound: neither the doubling nor the product may wrap around.
TEST_F(DeliveryTest, HugeOptionsWaitADay) {
  settings.timer_interval = settings.max_backoff_counter = UINT32_MAX;
  channel.on_send = [](const std::string&) { return -1; };
  Start();
  Give(1);
  clock.RunFor(std::chrono::hours(24) * 40);
  EXPECT_EQ(channel.sent.size(), 39u) << "after 2^31 the row begins again, without a send";
  EXPECT_EQ(Waits().back(), 24 * 3600);
}

// Which answers acknowledge a batch.
TEST_F(DeliveryTest, Acknowledgements) {
  struct Case {
    const char* name;
    std::function<void(test::FakeChannel&, const std::string& id)> answer;
    bool good;
    seconds waited;
    const char* line;
  };
  const auto good = std::make_shared<orlane::zem::context::idfw::LoginLogoffEventAckMsg>();
  for (const Case& c : {
           Case{"ok", [](auto&to, auto&id) { to.Ack(id); }, true, seconds(0),
                "Idfw: Received IDFW-Vertical ack msg from MP"},
           Case{"refused", [](auto&to, auto&id) { to.Ack(id, 5, "busy"); }, false, seconds(0),
                "Idfw: error_msg from IDFW-Vertical is: busy"},
           Case{"an older batch", [](auto&to, auto&id) { to.Ack(std::to_string(std::stoi(id) + 100)); },
                false, seconds(0), "errorCode=\"CTX575\""},
           Case{"no number", [](auto&to, auto&) { to.Ack("abc"); }, false, seconds(0),
                "errorCode=\"ERR_CTXT_PROCESS_LOGINLOGOFF_ACK_MSG\""},
           Case{"a number and more", [](auto&to, auto&id) { to.Ack(id + "x"); }, false, seconds(0),
                "Idfw: Unhandled exception occurred while processing ack from MP"},
           Case{"unreadable", [](auto&to, auto&id) { to.Arrive(to.kAckType, id, nullptr); }, false,
                seconds(10), "Idfw: Ack from MP IDFW-Vertical timed out"},
           Case{"another type", [&](auto&to, auto&id) { to.Arrive("x.Y", id, good); }, false, seconds(10),
                "Idfw: Invalid payload type: x.Y, ignoring"},
           Case{"none", [](auto&, auto&) {}, false, seconds(10), "timed out"},
       }) {
    SCOPED_TRACE(c.name);
    log.Clear();
    channel.sent.clear();
    channel.on_send = [&](const std::string& id) {
      c.answer(channel, id);
      return 0;
    };
    Start();
    Give(1);
    clock.RunFor(seconds(60));
    ASSERT_THAT(channel.sent, SizeIs(1));
    EXPECT_TRUE(c.waited == seconds(0) ||
                !log.Contains("Idfw: Failed to send the login/logoff msg to ZEM manager"));
    clock.RunFor(c.waited);
    EXPECT_TRUE(log.Contains(c.line));
    EXPECT_EQ(log.Contains("Idfw: Sent login/logoff message to ZEM Manager successfully"), c.good);
    EXPECT_EQ(log.Contains("Idfw: Failed to send the login/logoff msg to ZEM manager"), !c.good);
    channel.AckAll();
    clock.RunFor(seconds(120));
    EXPECT_THAT(channel.sent, SizeIs(c.good ? 1 : 2)) << "what was not acknowledged comes again";
    router.reset();
  }
}

// The answer of the first try arrives while the second one waits: the batch is the same.
TEST_F(DeliveryTest, LateAnswerAcknowledgesTheBatchThatWasSentAgain) {
  Start();
  Give(1);
  clock.RunFor(seconds(60 + 10));
  channel.Ack("0");
  clock.RunFor(seconds(120));
  EXPECT_THAT(Ids(), ElementsAre("0", "0"));
  EXPECT_FALSE(log.Contains("successfully")) << "an answer between two tries is for nobody";
  channel.Ack("0");
  clock.Settle();
  EXPECT_TRUE(log.Contains("successfully"));
  Give(1);
  clock.RunFor(seconds(60));
  channel.Ack("0");
  clock.Settle();
  EXPECT_TRUE(log.Contains("errorCode=\"CTX575\"")) << "the second answer of the batch before";
  clock.RunFor(seconds(120));
  channel.Ack("1");
  clock.Settle();
  EXPECT_THAT(Ids(), ElementsAre("0", "0", "1", "1"));
  EXPECT_EQ(log.Count("successfully"), 2u);
}

TEST_F(DeliveryTest, AFullCacheDropsTheOldestAndReplacesTheBatchThatIsPending) {
  settings.cache_limit = 4;
  channel.on_send = [](const std::string&) { return -1; };
  Start();
  Give(2);
  clock.RunFor(seconds(60));
  Give(7);
  EXPECT_EQ(log.Count("errorCode=\"CTX571\""), 3u);
  EXPECT_EQ(router->cache().dropped(), 3u);
  clock.RunFor(seconds(120));
  EXPECT_THAT(Ids(), ElementsAre("0", "1"));
  EXPECT_THAT(SessionsOf(1), ElementsAre(5, 6, 7, 8));
  EXPECT_EQ(router->messenger().replaced(), 2u);
  EXPECT_EQ(router->cache().Size(), 0u);
}

// With a limit of 1000 and 99 percent the 991st event sends; with a dead link it does so once, not for ever.
TEST_F(DeliveryTest, ThePassingOfTheThresholdSends) {
  settings.cache_threshold = 99;
  channel.AckAll();
  Start();
  Give(990);
  EXPECT_THAT(channel.sent, SizeIs(0));
  Give(1);
  ASSERT_THAT(channel.sent, SizeIs(1));
  EXPECT_EQ(channel.sent[0].events, 991);
  EXPECT_EQ(channel.sent[0].when, start);
  EXPECT_TRUE(log.Contains("Idfw: Cache reached the threshold of 99 percent."));

  channel.on_send = [](const std::string&) { return -1; };
  Give(1);
  clock.RunFor(seconds(60));
  Give(991);
  for (int i = 0; i < 5; ++i) Give(1);
  EXPECT_THAT(channel.sent, SizeIs(3)) << "the failed batch, at the timer and at the threshold";
  channel.AckAll();
  clock.RunFor(seconds(240));
  EXPECT_EQ(Ids().back(), "2") << "the rest follows the success at once";
  EXPECT_EQ(router->cache().Size(), 0u);
}

TEST_F(DeliveryTest, AtAHundredPercentOnlyTheTimerSends) {
  settings.cache_limit = 10;
  channel.AckAll();
  Start();
  Give(12);
  EXPECT_THAT(channel.sent, SizeIs(0));
  clock.RunFor(seconds(60));
  EXPECT_THAT(channel.sent, SizeIs(1));
}

// The end comes while a batch waits for its acknowledgement, and while the channel throws.
TEST_F(DeliveryTest, EndsAtOnceDuringASend) {
  Start();
  Give(1);
  clock.RunFor(seconds(60));
  const zem::TimePoint before = clock.Now();
  router.reset();
  EXPECT_EQ(clock.Now(), before);
  EXPECT_TRUE(log.Contains("Idfw: Disconnect Messenger"));
  channel.Ack("0");  // finds nobody

  channel.on_send = [](const std::string&) -> int { throw CtxtProtobufError("no bytes"); };
  Start();
  Give(1);
  clock.RunFor(seconds(60));
  EXPECT_TRUE(log.Contains("errorCode=\"CTX574\""));
  router.reset();
}

TEST_F(DeliveryTest, FormOfTheEvents) {
  channel.AckAll();
  Start();
  struct Case {
    uint32_t event_type;
    uint32_t ip_type;
    const char* vm;
    const char* text;
  };
  constexpr const char* kBios = "bios_id { first: 4755801206503243776 second: 1 }";
  for (const Case& c : {Case{0, 0, "502a1122-3344-5566-7788-99aabbccdd01", "event_type: 1"},
                        Case{1, 1, "502a1122-3344-5566-7788-99aabbccdd01", "event_type: 2"},
                        Case{2, 65535, "502a1122-3344-5566-7788-99aabbccdd01", "event_type: 4"},
                        Case{3, 7, "502a1122-3344-5566-7788-99aabbccdd01", "event_type: 3"},
                        Case{6, 0, "this name has no hexadecimal digits!", ""}}) {
    auto info = Login(9);
    info->eventType = c.event_type;
    info->clientIpType = c.ip_type;
    info->clientIp.fill('1');
    info->vcUuid = c.vm;
    router->listener().OnEvent(std::move(info));
    clock.RunFor(seconds(60));
    LoginLogoffEventMsg message;
    ASSERT_TRUE(message.ParseFromString(channel.sent.back().bytes));
    const auto& event = message.login_logoff_event(0);
    const std::string text = event.ShortDebugString();
    SCOPED_TRACE(text);
    EXPECT_THAT(text, testing::HasSubstr(c.text));
    EXPECT_EQ(event.has_event_type(), c.event_type < 4);
    EXPECT_EQ(event.has_client_ip(), c.ip_type < 2);
    if (event.has_client_ip()) {
      EXPECT_EQ(event.client_ip().type(), c.ip_type + 1);
      EXPECT_EQ(event.client_ip().address(), std::string(40, '1'));
    }
    EXPECT_TRUE(event.user().has_sid());
    EXPECT_EQ(event.user().sid(), "");
    EXPECT_THAT(text, testing::HasSubstr(kBios));
    const bool uuid = c.event_type < 4;
    EXPECT_EQ(event.vm_id().first(), uuid ? 0x502a112233445566 : 0u);
    EXPECT_EQ(event.vm_id().second(), uuid ? 0x778899aabbccdd01 : 0u);
  }
  EXPECT_EQ(log.Count("has no uuid, the manager gets 0 for it"), 1u);
}

// A million logons over a link that does everything wrong by seed: each of them was received in one batch,
// was counted as dropped out of the full cache, or was in a batch that is counted as replaced.
class CountTest : public DeliveryTest, public testing::WithParamInterface<uint64_t> {
 protected:
  static constexpr uint32_t kLogons = 1000000;

  struct Batch {
    size_t hash;
    int events;
    bool received = false;
  };

  // A batch's way; the result is the channel's.
  int Travel(const std::string& id) {
    const auto sent = std::exchange(channel.sent, {}).back();
    const auto [batch, is_new] =
        batches.try_emplace(id, Batch{std::hash<std::string>()(sent.bytes), sent.events});
    if (is_new) Note(sent.bytes);
    EXPECT_EQ(batch->second.hash, std::hash<std::string>()(sent.bytes)) << "a batch stays as it is";
    const uint64_t fate = good_link ? kFates : random() % kFates;
    if (fate < 3) return -1;
    batch->second.received = true;
    if (fate < 5) {
      channel.Ack(id, 5, "busy");
    } else if (fate < 6) {
      channel.Ack(std::to_string(random() % 1000));
    } else if (fate < 7) {
      channel.Arrive(test::FakeChannel::kAckType, id, nullptr);
    } else if (fate < 9) {
      late.push_back(id);
    } else if (fate > 10) {
      channel.Ack(id);
    }
    return 0;
  }
  void Note(const std::string& bytes) {
    LoginLogoffEventMsg message;
    ASSERT_TRUE(message.ParseFromString(bytes));
    for (const auto& event : message.login_logoff_event()) {
      EXPECT_FALSE(seen.at(event.session_id())) << "in two batches";
      seen[event.session_id()] = true;
    }
  }

  static constexpr uint64_t kFates = 20;
  std::mt19937_64 random{GetParam()};
  bool good_link = false;
  std::map<std::string, Batch> batches;
  std::vector<bool> seen = std::vector<bool>(kLogons);
  std::vector<std::string> late;
};

TEST_P(CountTest, AMillionLogonsAreAllAccountedFor) {
  zem::Logger::logLevel.store(zem::kLogFatal);
  channel.on_send = [this](const std::string& id) { return Travel(id); };
  settings.cache_threshold = 80;
  Start();
  while (given < kLogons) {
    const uint64_t burst = random() % 50 == 0 ? 3000 : random() % 400;
    Give(static_cast<uint32_t>(std::min<uint64_t>(burst, kLogons - given)));
    clock.RunFor(std::chrono::milliseconds(random() % 60000));
    for (const std::string& id : std::exchange(late, {})) channel.Ack(id);
    clock.Settle();
  }
  good_link = true;
  clock.RunFor(seconds(3000));
  EXPECT_EQ(router->cache().Size(), 0u);
  uint64_t received = 0;
  uint64_t gone = 0;
  for (const auto& [id, batch] : batches)
    (batch.received ? received : gone) += static_cast<uint64_t>(batch.events);
  const uint64_t dropped = router->cache().dropped();
  const uint64_t replaced = router->messenger().replaced();
  EXPECT_EQ(received + gone + dropped, kLogons);
  EXPECT_LE(gone, replaced) << "a batch was given up without being counted";
  EXPECT_GT(dropped, 0u);
  EXPECT_GT(gone, 0u);
  RecordProperty("received", std::to_string(received));
  RecordProperty("dropped", std::to_string(dropped));
  RecordProperty("replaced", std::to_string(replaced));
}

INSTANTIATE_TEST_SUITE_P(Seeds, CountTest, testing::Values(1, 2, 3));

// Every event is received, counted as dropped or still there, whatever the producers do at once.
TEST(LoginLogoffInfoCacheTest, NothingIsLostBetweenManyProducersAndTheConsumer) {
  constexpr uint32_t kEach = 50000;
  const auto signal = std::make_shared<LoginLogoffSignal>();
  {
    zem::test::LogCapture warnings;
    EXPECT_EQ(LoginLogoffInfoCache(200000, 50, signal).cache_limit(), LoginLogoffInfoCache::kMostEntries);
    EXPECT_TRUE(warnings.Contains("Idfw: A cache limit of 200000 is out of range, using 100000"));
  }
  zem::test::LogCapture log(zem::kLogFatal);
  LoginLogoffInfoCache cache(8, 50, signal);
  std::atomic<int> running = 3;
  uint64_t consumed = 0;
  std::vector<zem::NativeThread> producers;
  for (uint32_t of = 0; of < 3; ++of) {
    producers.emplace_back([&] {
      for (uint32_t i = 0; i < kEach; ++i) cache.Add(Login(i));
      --running;
    });
  }
  const auto consume = [&] {
    uint32_t round = 0;
    cache.ConsumeAll([&](const LoginLogoffInfo&) { return ++round > 0; });
    EXPECT_LE(round, cache.cache_limit()) << "a batch ends also in a storm";
    EXPECT_LE(cache.Size(), cache.cache_limit());
    consumed += round;
  };
  while (running > 0) consume();
  for (zem::NativeThread& producer : producers) producer.Join();
  consume();
  EXPECT_EQ(cache.Size(), 0u);
  EXPECT_EQ(consumed + cache.dropped(), 3u * kEach);
  EXPECT_GT(cache.dropped(), 0u);
}

}  // namespace
}  // namespace Ctxt
