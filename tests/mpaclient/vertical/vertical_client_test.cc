#include "mpaclient/vertical/vertical_client.h"

#include "platform/core/condition.h"
#include "tests/mpaclient/channel_fixture.h"

namespace zem {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kSwitching = "SwitchingVertical";
constexpr const char* kController = "ControllerMgmtVertical";

class VerticalClientTest : public ChannelTest {
 protected:
  VerticalClient::Callbacks Callbacks() {
    return {.payload =
                [this](const VerticalRecord& record) {
                  events.push_back("payload " + record.header.type_id + "=" + std::string(record.payload()));
                },
            .opened =
                [this](uint32_t major, uint32_t minor) {
                  events.push_back("opened " + std::to_string(major) + "." + std::to_string(minor));
                },
            .closed = [this] { events.push_back("closed"); },
            .intercept =
                [this](const VerticalRecord& record) {
                  seen_types.push_back(record.type());
                  return record.type() == intercepted;
                }};
  }

  // Delivers a record as the manager client does.
  void Deliver(const char* vertical, BusMessageType type, int cookie = -1) {
    BusHeader header;
    header.type_id = "t";
    BusRecord record(type);
    record.SetApp(vertical, "").SetCookie(cookie).SetHeader(header).SetManagerVersion(3, 1).SetPayload("x");
    rmqClientMessage message = record.message();
    ClientRegistry::Deliver(&message);
  }

  std::vector<std::string> Events() { return std::exchange(events, {}); }

  std::vector<std::string> events;
  std::vector<int32_t> seen_types;
  int32_t intercepted = 0;
};

// Each type of record reaches the one callback that is made for it.  What the manager client refuses (the
// types that only go out) does not arrive at all.
TEST_F(VerticalClientTest, EachRecordReachesItsCallback) {
  VerticalClient client(provider, GetVertical(VerticalId::kSwitching), Callbacks());
  client.Start();
  for (int type = kRmqClientRegistrationRequest; type <= kRmqMpPublish; ++type) {
    Deliver(kSwitching, static_cast<BusMessageType>(type));
    switch (type) {
      case kRmqClientPayload:
      case kRmqMpRpcRequest:
      case kRmqMpRpcResponse:
      case kRmqClientRpcResponse:
      case kRmqMpPublish:
        EXPECT_THAT(Events(), ElementsAre("payload t=x")) << type;
        break;
      case kRmqClientRegistrationAck:
        EXPECT_THAT(Events(), ElementsAre("opened 3.1"));
        EXPECT_TRUE(client.connected());
        break;
      case kRmqClientClose:
        EXPECT_THAT(Events(), ElementsAre("closed"));
        EXPECT_FALSE(client.connected());
        EXPECT_TRUE(log.Contains("[ZemaAppRxCallback] Got CLIENT CLOSE Message for cookie:[-1]"));
        break;
      default:
        EXPECT_THAT(Events(), IsEmpty()) << type;
    }
  }
  EXPECT_EQ(seen_types.size(), 7U);
  intercepted = kRmqMpPublish;
  Deliver(kSwitching, kRmqMpPublish);
  EXPECT_THAT(Events(), IsEmpty()) << "the application has taken it";
  client.Stop();
  EXPECT_FALSE(client.registered());
}

// The row decides on record type, correlation and class; what it does not have is not sent.
TEST_F(VerticalClientTest, TheRowMakesTheRecord) {
  const std::string type = "com.orlane.zem.config.MpLcpMsg";
  const std::string customer = "com.orlane.zem.customer.ClientRpcRequest";
  struct Case {
    VerticalId vertical;
    std::string type;
    std::string given;
    int32_t record;
    std::string correlation;
    std::string msg_class;
  };
  for (const Case& c : {
           Case{VerticalId::kControllerMgmt, type, "", kRmqClientRpcRequest, "EMPTY", type},
           Case{VerticalId::kControllerMgmt, type, "c-1", kRmqClientRpcRequest, "c-1", type},
           Case{VerticalId::kSwitching, "com.orlane.zem.switching.HostConfigMsg", "c-2",
                kRmqClientRpcResponse, "c-2", customer},
           Case{VerticalId::kSwitching, "com.orlane.zem.switching.ChecksumMsg", "c-3", kRmqClientRpcRequest,
                "mp_rpc_correlation_id", customer},
       }) {
    const VerticalClient client(provider, GetVertical(c.vertical), {});
    const auto message = client.Prepare(c.type, "p", c.given, kAph1);
    ASSERT_TRUE(message);
    const rmqClientMessage record = message->record.message();
    const BusHeader header = BusHeader::Of(record).value();
    EXPECT_EQ(record.msg_type, c.record);
    EXPECT_STREQ(record.content_type, kProtobufContent);
    EXPECT_EQ(header.correlation_id, c.correlation);
    EXPECT_EQ(header.type_id, c.type);
    EXPECT_EQ(header.msg_class, c.msg_class);
    EXPECT_EQ(header.message_id, message->message_id);
    EXPECT_EQ(record.routing_key != nullptr, c.record == kRmqClientRpcResponse)
        << "only answers have an asker";
  }
  VerticalClient client(provider, GetVertical(VerticalId::kControllerMgmt), {});
  EXPECT_FALSE(client.Send(type, "", "", ""));
  EXPECT_TRUE(log.Contains("[SendMsg] Not connected to MPA, dropped message to MPA"));

  StartManager();
  client.Start();
  proxy_client->Start();
  clock.RunFor(seconds(6));
  EXPECT_TRUE(client.Send(type, "", "c-2", ""));
  EXPECT_FALSE(client.Send("com.orlane.zem.config.Other", "", "", ""));
  EXPECT_TRUE(log.Contains("[SendMsg] Unsupported message type com.orlane.zem.config.Other to MPA"));
  EXPECT_FALSE(client.Send(type, "\xff\xff", "", ""));
  EXPECT_TRUE(log.Contains("[SendMsg] failed to send message (type:com.orlane.zem.config.MpLcpMsg) to mpa"));
  clock.RunFor(milliseconds(10));
  const auto received = manager->record().ReceivedFrom(kController, 0);
  ASSERT_FALSE(received.empty());
  EXPECT_EQ(received.back().correlation_id, "c-2");
}

// A second application under one name gets nothing, and its end leaves the first one's registration alone.
TEST_F(VerticalClientTest, OnlyTheOwnerEndsTheRegistration) {
  VerticalClient first(provider, GetVertical(VerticalId::kSwitching), Callbacks());
  first.Register();
  {
    VerticalClient second(provider, GetVertical(VerticalId::kSwitching), {});
    second.Register();
    EXPECT_TRUE(log.Contains("the second registration is refused"));
  }
  Deliver(kSwitching, kRmqMpPublish);
  EXPECT_THAT(Events(), ElementsAre("payload t=x"));
}

// The application's objects go right after Stop, so no callback may be running then.
TEST_F(VerticalClientTest, StopWaitsForARunningCallback) {
  std::mutex mutex;
  Condition changed;
  bool entered = false;
  bool finished = false;
  VerticalClient client(provider, GetVertical(VerticalId::kSwitching),
                        {.payload = [&](const VerticalRecord&) {
                          {
                            const std::lock_guard lock(mutex);
                            entered = true;
                            changed.NotifyAll();
                          }
                          SleepFor(seconds(1));
                          finished = true;
                        }});
  client.Start();
  NativeThread delivering([this] { Deliver(kSwitching, kRmqMpPublish); });
  {
    std::unique_lock lock(mutex);
    changed.Wait(lock, [&] { return entered; });
  }
  client.Stop();
  EXPECT_TRUE(finished);
  delivering.Join();
}

}  // namespace
}  // namespace zem
