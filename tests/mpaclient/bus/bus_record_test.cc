#include "mpaclient/bus/bus_record.h"

#include <bson/bson.h>
#include <gtest/gtest.h>

#include <cstring>

#include "mpaclient/bus/rmq_client.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/virtual_clock.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/work_group.h"

namespace zem {
namespace {

TEST(BusNamesTest, TypesAndErrors) {
  EXPECT_STREQ(BusMessageTypeName(1), "RMQ_CLIENT_REGISTRATION_REQUEST");
  EXPECT_STREQ(BusMessageTypeName(8), "RMQ_MP_RPC_REQUEST");
  EXPECT_STREQ(BusMessageTypeName(13), "RMQ_MP_PUBLISH");
  for (const int32_t type : {0, -1, 14, INT32_MIN, INT32_MAX}) {
    EXPECT_STREQ(BusMessageTypeName(type), "UNKNOWN_RMQ_CLIENT_MESSAGE_TYPE");
  }
  EXPECT_STREQ(BusErrorName(-2008), "CONNECT_FAIL");
  EXPECT_STREQ(BusErrorName(-2027), "BAD_EPHM_PORT");
  EXPECT_STREQ(BusErrorName(-2101), "EXCEPTION");
  for (const int error : {0, -1, -2028, -2102}) EXPECT_STREQ(BusErrorName(error), "UNKNOWN");
}

TEST(BusHeaderTest, ReadsWhatItWrites) {
  BusHeader header;
  header.type_id = "com.orlane.zem.switching.HostConfigMsg";
  header.correlation_id = "c";
  header.app_id = "unused";
  header.msg_type = 2;
  header.vdr_request_id = 1LL << 40;
  const std::optional<BusHeader> read = BusHeader::Decode(header.Encode());
  ASSERT_TRUE(read);
  EXPECT_EQ(read->type_id, header.type_id);
  EXPECT_EQ(read->correlation_id, "c");
  EXPECT_EQ(read->reply_to, "");
  EXPECT_EQ(read->app_id, "unused");
  EXPECT_EQ(read->msg_type, 2);
  EXPECT_EQ(read->vdr_request_id, 1LL << 40);
  header.msg_class = "com.orlane.zem.customer.ClientRpcRequest";
  const std::optional<BusHeader> with_class = BusHeader::Decode(header.Encode());
  ASSERT_TRUE(with_class);
  EXPECT_EQ(with_class->msg_class, header.msg_class);
  EXPECT_EQ(with_class->msg_type, std::nullopt) << "one key cannot be both";
}

TEST(BusHeaderTest, ForeignKeysAndTypesAreSkipped) {
  bson_t document = BSON_INITIALIZER;
  bson_append_int32(&document, "amqp_replyTo", -1, 7);
  bson_append_utf8(&document, "other", -1, "x", 1);
  bson_append_int32(&document, "msg_type", -1, 5);
  const std::vector<uint8_t> bytes(bson_get_data(&document), bson_get_data(&document) + document.len);
  bson_destroy(&document);
  const std::optional<BusHeader> read = BusHeader::Decode(bytes);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->reply_to, "");
  EXPECT_EQ(read->msg_type, 5);
}

// A truncated or damaged document is refused or decoded, without reading past its end.
TEST(BusHeaderTest, BrokenBytesAreContained) {
  BusHeader header;
  header.type_id = "type";
  header.reply_to = "reply";
  const std::vector<uint8_t> whole = header.Encode();
  for (size_t size = 0; size < whole.size(); ++size) {
    const std::vector<uint8_t> cut(whole.begin(), whole.begin() + static_cast<long>(size));
    EXPECT_FALSE(BusHeader::Decode(cut)) << size;
  }
  for (size_t at = 0; at < whole.size(); ++at) {
    std::vector<uint8_t> bent = whole;
    bent[at] ^= 0xff;
    static_cast<void>(BusHeader::Decode(bent));
  }
  rmqClientMessage message{};
  EXPECT_FALSE(BusHeader::Of(message));
  for (const uint32_t length : {0u, 4u, 65537u, 0xffffffffu}) {
    uint8_t prefix[4];
    std::memcpy(prefix, &length, sizeof(prefix));
    message.header = prefix;
    EXPECT_FALSE(BusHeader::Of(message)) << length;
  }
}

TEST(BusRecordTest, PointersFollowTheRecord) {
  BusHeader header;
  header.correlation_id = "id";
  BusRecord first(kRmqClientPublish);
  first.SetApp("a", "b").SetHeader(header).SetRoutingKey("key").SetPayload("short").SetFreeBlock(malloc(8));
  BusRecord second = std::move(first);
  const rmqClientMessage message = second.message();
  EXPECT_EQ(message.msg_type, 12);
  EXPECT_EQ(message.cookie, -1);
  EXPECT_STREQ(message.app_type, "a");
  EXPECT_STREQ(message.routing_key, "key");
  EXPECT_EQ(message.content_type, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(message.payload), message.payload_len), "short");
  EXPECT_EQ(BusHeader::Of(message)->correlation_id, "id");
  EXPECT_NE(message.free_block, nullptr);
  EXPECT_EQ(first.message().free_block, nullptr);

  const BusRecord copy = BusRecord::Copy(message);
  second = BusRecord(kRmqClientClose);
  const rmqClientMessage copied = copy.message();
  EXPECT_STREQ(copied.app_id, "b");
  EXPECT_EQ(copied.payload_len, 5u);
  EXPECT_EQ(BusHeader::Of(copied)->correlation_id, "id");
  EXPECT_EQ(copied.free_block, nullptr);
}

TEST(RmqClientTest, RefusesConnectionsAndRunsItsLoop) {
  const boost::intrusive_ptr<RmqClientInterface> client(new RmqClient);
  const rmqClientCallback callback = [](void*, rmqClientMessage*) {};
  EXPECT_EQ(client->InitNETClient("id", "type", 1, callback), kBusConnectFail);
  EXPECT_EQ(client->InitNETClient("id", "type", 1, nullptr), -2026);
  EXPECT_EQ(client->CloseClient(1), kBusInvalidCookie);
  EXPECT_EQ(client->StopNETEventLoop(), -2024);

  VirtualClock clock;
  metrics::Registry registry;
  const boost::intrusive_ptr<WorkGroup> group(new WorkGroup("framework", registry, WorkGroup::kUnbounded));
  group->Start(1);
  const boost::intrusive_ptr<RmqClientEventLoopThread> loop(new RmqClientEventLoopThread);
  ASSERT_TRUE(group->Enqueue(std::make_shared<WorkItemImpl<RmqClientEventLoopThread>>(loop)));
  clock.Settle();
  for (const LoopReading& each : LoopThread::ReadAll()) {
    EXPECT_FALSE(each.busy) << each.name << ": the loop's life is no step of the work group";
  }
  EXPECT_EQ(LoopThread::ReadAll().back().name, "bus");
  EXPECT_EQ(client->NETEventLoop(0), -2017);
  EXPECT_EQ(client->StopNETEventLoop(), 0);
  group->Stop();
}

}  // namespace
}  // namespace zem
