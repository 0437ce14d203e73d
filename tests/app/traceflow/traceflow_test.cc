#include "app/traceflow/traceflow_app.h"

#include "app/traceflow/message_dump.h"
#include "platform/core/uuid.h"
#include "tests/app/dataplane_channel.h"

namespace zem::Tarvik {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr const char* kVertical = "Traceflow";
constexpr const char* kRequest = "TraceflowPacketOutRequestMsg";

class TraceflowTest : public DataplaneChannelTest {
 protected:
  TraceflowTest() {
    app = std::make_shared<TraceflowApp>(provider, adapter);
    app->Start();
    Connect();
  }
  ~TraceflowTest() override { app->Stop(); }

  static std::string Round(int number) {
    return "round_id { first: 7 second: " + std::to_string(number) + " }";
  }
  void Request(int number) { Ask(kVertical, kRequest, Round(number)); }
  void Status(int number, int status) {
    Tell("traceflow { packet_out_request_status { " + Round(number) + " status: " + std::to_string(status) +
         " } }");
  }
  std::string AnswerText(size_t number) { return answers.contains(number) ? answers[number].text : "none"; }

  std::shared_ptr<TraceflowApp> app;
};

// A request is relayed with all that this side has no name for, and answered by the first status alone.
TEST_F(TraceflowTest, ARequestGetsTheFirstStatus) {
  Request(1);
  EXPECT_THAT(TakeReceived(),
              ElementsAre("version: 1 traceflow { packet_out_request { round_id { first: 7 second: 1 } } }"));
  Status(1, 3);
  EXPECT_THAT(AnswerText(0), HasSubstr("\"status\":3"));
  EXPECT_THAT(AnswerText(0), HasSubstr("Traceflow.TraceflowPacketOutRequestStatusMsg"));
  Status(1, 4);
  EXPECT_TRUE(log.Contains("OPS02002"));
  EXPECT_TRUE(log.Contains(
      "Traceflow round UUID: 00000000-0000-0007-0000-000000000001 is not found in response map"));
  clock.RunFor(seconds(5));
  EXPECT_FALSE(log.Contains("Evict traceflow round"));

  BusHeader header;
  header.correlation_id = "c";
  const std::string bytes("\x0a\x12\x09\x01\0\0\0\0\0\0\0\x11\x02\0\0\0\0\0\0\0\x98\x06\x05\xa2\x06\x01x",
                          27);
  const auto deliver = [](const BusRecord& record) {
    rmqClientMessage message = record.message();
    ClientRegistry::Deliver(&message);
  };
  BusRecord record(kRmqMpRpcRequest);
  record.SetApp(kVertical, "").SetHeader(header).SetPayload(bytes);
  deliver(record);
  clock.Settle();
  ASSERT_FALSE(dataplane->Received(1).empty());
  EXPECT_THAT(dataplane->Received(1).back().body, HasSubstr(bytes));

  BusRecord bare(kRmqMpRpcRequest);
  bare.SetApp(kVertical, "").SetPayload(bytes);
  deliver(bare);
  EXPECT_TRUE(log.Contains("There is no amqp headers in client message"));
  record.SetPayload("\xff");
  deliver(record);
  EXPECT_TRUE(log.Contains("Failed to parse traceflow msg from MPA msg payload"));
  clock.Settle();
  EXPECT_EQ(dataplane->Received(2).size(), 0U);
}

// Fifty wait at most, a round is open once, and each of them gets status 5 after two to four seconds: not
// earlier, which ages in whole seconds would do.
TEST_F(TraceflowTest, SilenceIsAnsweredForEachOpenRound) {
  for (int i = 0; i < 49; ++i) Request(i);
  Request(0);
  EXPECT_TRUE(log.Contains("Traceflow round UUID is already in response map"));
  clock.RunFor(milliseconds(1100));
  Request(100);
  Request(101);
  EXPECT_TRUE(log.Contains("Traceflow RPC response map is full"));
  EXPECT_EQ(TakeReceived().size(), 50U);
  clock.RunFor(seconds(5));
  EXPECT_EQ(answers.size(), 50U) << "neither the second of a round nor the one too many";
  EXPECT_FALSE(answers.contains(49) || answers.contains(51));
  for (const auto& [number, answer] : answers) {
    EXPECT_THAT(answer.text, HasSubstr("\"status\":5"));
    EXPECT_GE(answer.took, seconds(2)) << number;
    EXPECT_LE(answer.took, seconds(4) + milliseconds(10)) << number;
  }
  Status(100, 0);
  EXPECT_TRUE(log.Contains("is not found in response map"));
  Request(0);
  Status(0, 0);
  EXPECT_THAT(AnswerText(52), HasSubstr("\"status\":0")) << "a round that has ended may come again";
}

// A dataplane agent that is away keeps nobody waiting; what was sent meanwhile reaches it later, and its late
// status finds nobody.
TEST_F(TraceflowTest, WithoutTheDataplaneAgent) {
  dataplane->Die();
  clock.Settle();  // what the link takes for sent before it knows would be lost
  Request(1);
  clock.RunFor(seconds(5));
  EXPECT_THAT(AnswerText(0), HasSubstr("\"status\":5"));
  dataplane->Return();
  clock.RunFor(seconds(11));
  EXPECT_EQ(TakeReceived().size(), 1U);
  Status(1, 0);
  EXPECT_TRUE(log.Contains("is not found in response map"));
}

// Observations go to every proxy of the manager, one that is unreachable apart; they get the node's id unless
// they name another, and a message id of their own.
TEST_F(TraceflowTest, ObservationsReachEveryProxy) {
  const std::string observed = "traceflow { packet_in_request { observation { component: \"port\" ";
  Tell(observed + "} packet_metadata { message_id { first: 1 second: 1 } source_mac { address: 2 } } } }");
  auto sent = TakeSent(kVertical);
  ASSERT_EQ(sent.size(), 2U) << "one for each proxy";
  const auto [first, second] = UuidHalves(*ParseUuid(kTn));
  for (const auto& [type, json] : sent) {
    EXPECT_EQ(type, "TraceflowPacketInRequestMsg");
    EXPECT_THAT(json, HasSubstr("\"first\":\"" + std::to_string(first) + "\",\"second\":\"" +
                                std::to_string(second)));
    EXPECT_THAT(json, Not(HasSubstr("{\"first\":\"1\",\"second\":\"1\"}")));
  }
  EXPECT_EQ(sent[0].second, sent[1].second);

  manager->RemoveAph(kAph2, true);
  clock.Settle();
  Tell(observed + "transport_node_id { first: 8 second: 9 } } } }");
  sent = TakeSent(kVertical);
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_THAT(sent[0].second, HasSubstr("\"first\":\"8\",\"second\":\"9\""));
  EXPECT_TRUE(log.Contains(std::string("Error while sending to APH ") + kAph2));

  app->Stop();
  Tell(observed + "} } }");
  EXPECT_TRUE(log.Contains("Error while sending to MPA -2001"));
  EXPECT_THAT(TakeSent(kVertical), IsEmpty());
}

TEST(TraceflowDumpTest, AddressesAreReadable) {
  orlane::zem::traceflow::TraceflowPacketMetadataMsg metadata;
  metadata.mutable_source_mac()->set_address(0x0250560a0b0c);
  metadata.mutable_source_ip()->set_ipv4(0x0a000001);
  metadata.mutable_destination_ip()->set_ipv6(std::string("\xfe\x80\0\0\0\0\0\0\0\0\0\0\0\0\0\x01", 16));
  EXPECT_EQ(DumpWithAddresses(metadata),
            "source_mac { 02:50:56:0a:0b:0c } source_ip { 10.0.0.1 } destination_ip { fe80::1 } ");
  metadata.mutable_destination_ip()->set_ipv6("short");
  EXPECT_THAT(DumpWithAddresses(metadata), HasSubstr("destination_ip {  }"));
}

}  // namespace
}  // namespace zem::Tarvik
