#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/channel/mpa_channel.h"
#include "app/ctxteng/channel/payload_types.h"
#include "app/ctxteng/channel/record_queue.h"
#include "proto/context/idfw.pb.h"
#include "proto/context/ids.pb.h"
#include "proto/context/ouvi.pb.h"
#include "tests/mpaclient/channel_fixture.h"

namespace Ctxt {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using zem::BusHeader;
using zem::BusMessageType;
using zem::BusRecord;

class CtxtChannelTest : public zem::ChannelTest {
 protected:
  CtxtChannelTest() { channel.Initialize(provider); }
  ~CtxtChannelTest() override { Stop(); }

  void Stop() {
    if (std::exchange(running, false)) channel.Shutdown();
  }
  void RegisterIdfw() {
    channel.RegisterClient("8888", "IDFW-Vertical", [this](const std::shared_ptr<CtxtMsg>& message) {
      if (on_message) on_message();
      received.push_back(message);
    });
  }
  // A record as the manager client delivers it.
  void Arrive(BusMessageType type, const BusHeader& header, const std::string& payload,
              const std::string& app_type = "IDFW-Vertical") {
    BusRecord record(type);
    record.SetApp(app_type, "").SetHeader(header).SetPayload(payload);
    rmqClientMessage message = record.message();
    zem::ClientRegistry::Deliver(&message);
    clock.Settle();
  }
  static BusHeader Ack() {
    BusHeader header;
    header.type_id = kLoginLogoffEventAckMsg;
    header.correlation_id = "c-1";
    return header;
  }

  MpaChannel link;
  CtxtChannel channel{link};
  bool running = true;
  std::function<void()> on_message;
  std::vector<std::shared_ptr<CtxtMsg>> received;
};

TEST_F(CtxtChannelTest, AcknowledgementReachesItsClient) {
  RegisterIdfw();
  orlane::zem::context::idfw::LoginLogoffEventAckMsg ack;
  ack.set_status_code(5);
  Arrive(zem::kRmqMpRpcResponse, Ack(), ack.SerializeAsString());
  ASSERT_THAT(received, SizeIs(1));
  EXPECT_EQ(received[0]->appId, "8888");
  EXPECT_EQ(received[0]->correlationId, "c-1");
  const auto payload =
      std::dynamic_pointer_cast<orlane::zem::context::idfw::LoginLogoffEventAckMsg>(received[0]->payload);
  ASSERT_NE(payload, nullptr);
  EXPECT_EQ(payload->status_code(), 5);
}

// Which records go to a client, and which are dropped with what line.
TEST_F(CtxtChannelTest, RecordsThatAreDropped) {
  RegisterIdfw();
  struct Case {
    BusMessageType type;
    const char* payload_type;
    const char* correlation_id;
    const char* reply_to;
    size_t delivered;
    const char* line;
  };
  for (const Case& c : {
           Case{zem::kRmqMpRpcRequest, kLoginLogoffEventAckMsg, "c", "r", 1, "Processing received RMQ"},
           Case{zem::kRmqClientRpcResponse, kLoginLogoffEventAckMsg, "c", "", 0,
                "Not processing message type: 11"},
           Case{zem::kRmqMpPublish, kLoginLogoffEventAckMsg, "c", "", 0, "errorCode=\"CTX264\""},
           Case{zem::kRmqMpRpcResponse, "", "c", "", 0, "errorCode=\"CTX153\""},
           Case{zem::kRmqMpRpcResponse, kLoginLogoffEventAckMsg, "", "", 0, "errorCode=\"CTX261\""},
           Case{zem::kRmqMpRpcRequest, "x.Y", "c", "r", 1, "CtxtMsg: Not able to deserialize bytes."},
           Case{zem::kRmqClientClose, "", "", "", 0, "MpaChannel: Close message ignored"},
       }) {
    SCOPED_TRACE(c.line);
    received.clear();
    log.Clear();
    BusHeader header;
    header.type_id = c.payload_type;
    header.correlation_id = c.correlation_id;
    header.reply_to = c.reply_to;
    Arrive(c.type, header, "");
    EXPECT_EQ(received.size(), c.delivered);
    EXPECT_TRUE(log.Contains(c.line));
  }
}

TEST_F(CtxtChannelTest, BytesThatAreNoMessageArriveWithoutOne) {
  RegisterIdfw();
  Arrive(zem::kRmqMpRpcResponse, Ack(), "\xff\xff\xff");
  ASSERT_THAT(received, SizeIs(1));
  EXPECT_EQ(received[0]->payload, nullptr);
  EXPECT_TRUE(log.Contains("CtxtMsg: Error in deserializing to LoginLogoffEventAckMsg"));
}

TEST_F(CtxtChannelTest, SecondRegistrationIsRefusedAndTheFirstStays) {
  RegisterIdfw();
  EXPECT_THROW(RegisterIdfw(), CtxtChannelError);
  // Under another id the manager client refuses the name; nothing of it may stay.
  EXPECT_THROW(channel.RegisterClient("9999", "IDFW-Vertical", nullptr), CtxtChannelError);
  CtxtMsg message;
  message.appId = "9999";
  EXPECT_EQ(channel.SendMsg(message, true), 0);
  Arrive(zem::kRmqMpRpcResponse, Ack(), "");
  EXPECT_THAT(received, SizeIs(1));
}

TEST_F(CtxtChannelTest, EventsReachTheManager) {
  StartManager();
  proxy_client->Start();
  channel.RegisterClient("1801", "ZEM-IntrusionServices", nullptr);
  clock.RunFor(std::chrono::seconds(20));
  CtxtMsg message;
  message.msgType = "com.orlane.zem.context";
  message.appId = "1801";
  message.payloadType = kEventInfoMsg;
  message.payload = std::make_shared<orlane::zem::context::ids::EventInfoMsg>();
  message.payloadLen = 3;  // what the sender believes does not count
  EXPECT_EQ(channel.SendMsg(message, false), 0);
  clock.RunFor(std::chrono::seconds(2));
  EXPECT_TRUE(
      log.Contains("MpaChannel: Sending RMQ_CLIENT_PUBLISH message with appType [ZEM-IntrusionServices]"));
  message.payloadType = "x.Y";
  EXPECT_THROW((void)channel.SendMsg(message, false), CtxtProtobufError);
  EXPECT_TRUE(log.Contains("CtxtMsg: Unsupported protobuf message for serialization."));
}

TEST_F(CtxtChannelTest, SendWithoutAManagerFails) {
  RegisterIdfw();
  CtxtMsg message;
  message.appId = "8888";
  message.payloadType = kLoginLogoffEventMsg;
  message.correlationId = std::string(200, 'x');
  message.payload = std::make_shared<orlane::zem::context::idfw::LoginLogoffEventMsg>();
  EXPECT_LT(channel.SendMsg(message, true), 0);
  EXPECT_TRUE(log.Contains("MpaChannel: uuid gen string size is 200, len 128"));
  EXPECT_EQ(log.Count("errorCode=\"CTX251\""), 2u);
}

TEST_F(CtxtChannelTest, ClientThatFailsLosesItsMessageOnly) {
  RegisterIdfw();
  on_message = [calls = 0]() mutable {
    if (++calls == 1) throw std::runtime_error("no luck");
    if (calls == 2) throw calls;
  };
  for (int i = 0; i < 3; ++i) Arrive(zem::kRmqMpRpcResponse, Ack(), "");
  EXPECT_THAT(received, SizeIs(1));
  EXPECT_EQ(log.Count("MpaChannel: The message for IDFW-Vertical is lost"), 2u);
}

// The thread ends although no client is registered, and although one is at work; what waits then is not
// delivered to a client that has shut down.
TEST_F(CtxtChannelTest, StopEndsTheThread) {
  Stop();
  EXPECT_TRUE(log.Contains("MpaChannel: Ending RMQ msg handling thread."));
  channel.Initialize(provider);
  running = true;
  RegisterIdfw();
  on_message = [] { zem::SleepFor(std::chrono::seconds(3)); };
  Arrive(zem::kRmqMpRpcResponse, Ack(), "");
  Arrive(zem::kRmqMpRpcResponse, Ack(), "");
  log.Clear();
  Stop();
  EXPECT_THAT(received, SizeIs(1));
  EXPECT_TRUE(log.Contains("MpaChannel: Released 1 messages that came during the stop"));
  EXPECT_TRUE(log.Contains("MpaChannel: Ending RMQ msg handling thread."));
  EXPECT_EQ(zem::ClientRegistry::Get("IDFW-Vertical"), nullptr);
}

TEST_F(CtxtChannelTest, ClientThatComesAfterTheStopIsRefused) {
  Stop();
  EXPECT_THROW(RegisterIdfw(), CtxtChannelError);
  EXPECT_EQ(zem::ClientRegistry::Get("IDFW-Vertical"), nullptr);
  channel.Initialize(provider);
  running = true;
  RegisterIdfw();
  Arrive(zem::kRmqMpRpcResponse, Ack(), "");
  EXPECT_THAT(received, SizeIs(1));
}

TEST(RecordQueueTest, DropsWhatComesPastTheBound) {
  zem::test::LogCapture log(zem::kLogError);
  RecordQueue queue;
  const auto record = std::make_shared<const BusRecord>(zem::kRmqMpRpcRequest);
  for (size_t i = 0; i < RecordQueue::kCapacity; ++i) ASSERT_TRUE(queue.Push(record));
  EXPECT_FALSE(queue.Push(record));
  EXPECT_EQ(log.Count("Message queue is full, not adding new message."), 1u);
  queue.PushLocal(record);
  EXPECT_EQ(queue.size(), RecordQueue::kCapacity + 1);
  const auto ended = [] { return true; };
  for (size_t i = 0; i <= RecordQueue::kCapacity; ++i) ASSERT_NE(queue.Pop(ended), nullptr);
  EXPECT_EQ(queue.Pop(ended), nullptr);
}

}  // namespace
}  // namespace Ctxt
