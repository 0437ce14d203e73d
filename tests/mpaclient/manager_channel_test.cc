#include <algorithm>

#include "mpaclient/verticals.h"
#include "proto/switching/switching.pb.h"
#include "proto/switching/switching_unified.pb.h"
#include "tests/mpaclient/channel_fixture.h"

namespace zem {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr const char* kSwitching = "SwitchingVertical";
constexpr const char* kLldp = "LldpVertical";
constexpr const char* kHostConfigType = "com.orlane.zem.switching.HostConfigMsg";
constexpr const char* kUnknownAph = "0a000000-0000-4000-8000-000000000009";
// Spread of the first stubs is 1 to 5 seconds.
constexpr seconds kReady{6};

// Stubs are made after the host's own delay; the handshake with the master leads to one ACK, which carries
// the manager's version.
TEST_F(ChannelTest, VerticalsBecomeReady) {
  StartManager();
  Register(kSwitching);
  Register(kLldp);
  Register("SupportBundle");
  proxy_client->Start();
  clock.RunFor(kReady);
  EXPECT_THAT(TypesSeenBy(kSwitching), ElementsAre(kRmqClientRegistrationAck));
  EXPECT_THAT(TypesSeenBy(kLldp), ElementsAre(kRmqClientRegistrationAck));
  EXPECT_EQ(SeenBy(kSwitching)[0].major, 4u);
  EXPECT_EQ(SeenBy(kSwitching)[0].header.msg_type, kRmqClientRegistrationAck);
  EXPECT_EQ(SeenBy(kSwitching)[0].header.app_id, "zem");
  EXPECT_EQ(ClientRegistry::Get(kSwitching)->connection_state(), MpaClient::kConnected);
  EXPECT_TRUE(ClientRegistry::Get(kSwitching)->IsConnected());
  EXPECT_THAT(Snapshot(kSwitching).stubs, UnorderedElementsAre(kAph1, kAph2));
  EXPECT_FALSE(ClientRegistry::Get(kSwitching)->IsMasterStubMissing());
  // Without an update callback it gets no stubs and serves only.
  EXPECT_THAT(Snapshot("SupportBundle").stubs, IsEmpty());
  EXPECT_EQ(ClientRegistry::Get("SupportBundle")->connection_state(), MpaClient::kDisconnected);
  EXPECT_EQ(manager->served_app_inits()[kSwitching], 1u);
  EXPECT_EQ(manager->served_app_inits().count(kLldp), 0u);
}

TEST_F(ChannelTest, RequestOfTheManagerIsAnsweredOnItsCall) {
  StartManager();
  Register(kSwitching);
  proxy_client->Start();
  clock.RunFor(kReady);
  on_record = [this](const Seen& record) {
    if (record.type != kRmqMpRpcRequest) return;
    BusHeader header;
    header.type_id = kHostConfigType;
    header.correlation_id = record.header.correlation_id;
    EXPECT_EQ(Send(kSwitching, kRmqClientRpcResponse, header, record.payload), 0);
    // The call is gone; without a routing key there is nowhere else to go.
    EXPECT_EQ(Send(kSwitching, kRmqClientRpcResponse, header, record.payload), -1);
  };
  sim::Manager::SendRequest request;
  request.vertical = kSwitching;
  request.member = "HostConfigMsg";
  request.text = "revision: \"7\"";
  request.correlation_id = "c-1";
  sim::HostAnswer answer;
  answer.status = rpc::Status(99);
  ASSERT_EQ(manager->Send(request, [&](const sim::HostAnswer& a) { answer = a; }), "");
  clock.RunFor(milliseconds(10));
  ASSERT_TRUE(answer.status.ok()) << answer.status.ToString();
  EXPECT_THAT(sim::AnswerJson(kSwitching, answer), ::testing::HasSubstr("\"revision\":\"7\""));
  EXPECT_EQ(answer.message.ctrl_header().correlation_id(), "c-1");
  const Seen record = SeenBy(kSwitching).back();
  EXPECT_EQ(record.header.type_id, kHostConfigType);
  EXPECT_EQ(record.header.reply_to, kAph1);
  orlane::zem::switching::HostConfigMsg config;
  ASSERT_TRUE(config.ParseFromString(record.payload));
  EXPECT_EQ(config.revision(), "7");
}

// An answer to a call that has ended counts as sent, because no retry can reach the call.  The switching
// vertical's answer goes to the asking APH once, as a message of its own.
TEST_F(ChannelTest, AnswerToAnEndedCallIsSentOnce) {
  StartManager();
  Register(kSwitching);
  Register(kLldp);
  proxy_client->Start();
  clock.RunFor(kReady);
  const auto ask = [this](const std::string& vertical, const std::string& member) {
    sim::Manager::SendRequest request;
    request.vertical = vertical;
    request.member = member;
    request.text = member == "RawPayloadMsg" ? "payload: \"x\"" : "";
    request.correlation_id = "slow";
    request.timeout = seconds(1);
    ASSERT_EQ(manager->Send(request, [](const sim::HostAnswer&) {}), "");
    clock.RunFor(seconds(2));
  };
  BusHeader header;
  header.type_id = kHostConfigType;
  header.correlation_id = "slow";
  for (const int round : {1, 2}) {
    ask(kSwitching, "HostConfigMsg");
    EXPECT_EQ(Send(kSwitching, kRmqClientRpcResponse, header, "", round == 1 ? kAph1 : kUnknownAph), 0);
    ask(kLldp, "RawPayloadMsg");
    EXPECT_EQ(Send(kLldp, kRmqClientRpcResponse, header, "", kAph1), 0);
    clock.RunFor(milliseconds(10));
    EXPECT_EQ(std::ranges::count(manager->record().ReceivedFrom(kSwitching, 0), "slow",
                                 &sim::Received::correlation_id),
              1);
    EXPECT_EQ(manager->record().ReceivedFrom(kLldp, 0).size(), 0u);
  }
}

// A correlation id is taken as long as its call runs, and no longer.
TEST_F(ChannelTest, CorrelationIdIsFreeAfterItsCall) {
  StartManager();
  Register(kSwitching);
  proxy_client->Start();
  clock.RunFor(kReady);
  sim::Manager::SendRequest request;
  request.vertical = kSwitching;
  request.member = "ChecksumMsg";
  request.correlation_id = "again";
  request.timeout = seconds(5);
  std::vector<int> statuses;
  const auto requests = [this] { return std::ranges::count(TypesSeenBy(kSwitching), kRmqMpRpcRequest); };
  const auto ask = [&] {
    ASSERT_EQ(manager->Send(request, [&](const sim::HostAnswer& a) { statuses.push_back(a.status.code()); }),
              "");
    clock.RunFor(seconds(3));
  };
  ask();
  ask();
  EXPECT_EQ(requests(), 1) << "the first call runs";
  clock.RunFor(seconds(3));
  ask();
  EXPECT_EQ(requests(), 2) << "both calls have run into their time-out";
  BusHeader answer;
  answer.type_id = "com.orlane.zem.switching.ChecksumMsg";
  answer.correlation_id = "again";
  EXPECT_EQ(Send(kSwitching, kRmqClientRpcResponse, answer, ""), 0);
  clock.RunFor(milliseconds(10));
  EXPECT_EQ(statuses.back(), 0) << "the end of the first call has not taken the id of this one";
}

// An inbound message that cannot be processed is dropped, and nothing else.
TEST_F(ChannelTest, InboundRules) {
  StartManager();
  Register(kSwitching);
  Register(kLldp);
  Register("INVENTORY_DISCOVERY_APPLICATION");
  proxy_client->Start();
  clock.RunFor(kReady);
  const auto send = [this](const std::string& vertical, const std::string& member, const std::string& text,
                           const std::string& id, bool publish, bool header) {
    sim::Manager::SendRequest request;
    request.vertical = vertical;
    request.member = member;
    request.text = text;
    request.correlation_id = id;
    request.publish = publish;
    request.with_header = header;
    auto status = std::make_shared<int>(-1);
    EXPECT_EQ(manager->Send(request, [status](const sim::HostAnswer& a) { *status = a.status.code(); }), "");
    clock.RunFor(milliseconds(10));
    return *status;
  };
  // A publish is answered at once, and again when its delivery fails.
  EXPECT_EQ(send(kSwitching, "ChecksumMsg", "checksum: \"a\"", "p-1", true, true), 0);
  EXPECT_EQ(SeenBy(kSwitching).back().type, kRmqMpPublish);
  EXPECT_EQ(SeenBy(kSwitching).back().header.correlation_id, "");
  EXPECT_EQ(send(kLldp, "RawPayloadMsg", "", "p-2", true, true), 0);
  EXPECT_TRUE(log.Contains("[LldpVertical] Invalid raw message"));
  EXPECT_THAT(TypesSeenBy(kLldp), ElementsAre(kRmqClientRegistrationAck));
  // A request without a header gets an id of its own.
  EXPECT_EQ(send(kSwitching, "ChecksumMsg", "", "", false, false), -1);
  EXPECT_EQ(SeenBy(kSwitching).back().header.correlation_id.size(), 36u);
  // A second request with an id that is open is dropped, and leaves the first one open.
  EXPECT_EQ(send(kSwitching, "ChecksumMsg", "", "r-1", false, true), -1);
  const size_t before = SeenBy(kSwitching).size();
  EXPECT_EQ(send(kSwitching, "ChecksumMsg", "", "r-1", false, true), -1);
  EXPECT_EQ(SeenBy(kSwitching).size(), before);
  BusHeader answer;
  answer.type_id = "com.orlane.zem.switching.ChecksumMsg";
  answer.correlation_id = "r-1";
  EXPECT_EQ(Send(kSwitching, kRmqClientRpcResponse, answer, ""), 0);
  // New names become the old ones for those who know only these.
  send("INVENTORY_DISCOVERY_APPLICATION", "IdaMsg", "command: 1", "i-1", false, true);
  EXPECT_EQ(SeenBy("INVENTORY_DISCOVERY_APPLICATION").back().header.type_id, "com.orlane.zem.ida.IdaMsg");
  // The manager's own app-init config is answered by the channel; the vertical does not see it.
  const size_t switching = SeenBy(kSwitching).size();
  EXPECT_EQ(send(kSwitching, "app_init_config", "sender: \"mp\"", "a-1", false, true), 0);
  EXPECT_EQ(SeenBy(kSwitching).size(), switching);
  EXPECT_TRUE(log.Contains("l2HostService::RpcMsgHandler Responded with AppInitConfigAckMsg"));
}

// A vertical without the handshake gets the manager's app-init config as a message like any other.
TEST_F(ChannelTest, AppInitConfigOfAVerticalWithoutTheHandshakeIsDelivered) {
  StartManager();
  Register(kLldp);
  proxy_client->Start();
  clock.RunFor(kReady);
  sim::Manager::SendRequest request;
  request.vertical = kLldp;
  request.member = "RawPayloadMsg";
  request.type = kAppInitConfigType;
  request.text = "payload: \"config\"";
  ASSERT_EQ(manager->Send(request, [](const sim::HostAnswer&) {}), "");
  clock.RunFor(milliseconds(10));
  EXPECT_EQ(SeenBy(kLldp).back().type, kRmqMpRpcRequest);
  EXPECT_EQ(SeenBy(kLldp).back().payload, "config");
}

TEST_F(ChannelTest, OutboundRoads) {
  StartManager();
  Register(kSwitching);
  Register(kLldp);
  proxy_client->Start();
  BusHeader header;
  header.type_id = "com.orlane.zem.switching.VifMsg";
  header.correlation_id = "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7aff";
  EXPECT_EQ(Send(kSwitching, kRmqClientRpcRequest, header, ""), -1) << "no stub yet";
  clock.RunFor(kReady);
  orlane::zem::switching::VifMsg vif;
  vif.set_operation(3);
  ASSERT_EQ(Send(kSwitching, kRmqClientRpcRequest, header, vif.SerializeAsString()), 0);
  clock.RunFor(milliseconds(10));
  const Seen answer = SeenBy(kSwitching).back();
  EXPECT_EQ(answer.type, kRmqMpRpcResponse);
  EXPECT_EQ(answer.header.correlation_id, header.correlation_id);
  EXPECT_EQ(answer.header.type_id, header.type_id);
  EXPECT_EQ(answer.payload, vif.SerializeAsString());
  const sim::Received received = manager->record().ReceivedFrom(kSwitching, 0).back();
  EXPECT_EQ(received.aph, kAph1);
  EXPECT_EQ(received.host, kTn);
  EXPECT_EQ(received.tracking_id, header.correlation_id);

  // A routing key names the APH for this vertical only; for others it means nothing.
  ASSERT_EQ(Send(kSwitching, kRmqClientPublish, header, "", kAph2), 0);
  header.type_id = "com.orlane.zem.lldp.LldpInterfacesMsg";
  header.correlation_id = "not a uuid";
  ASSERT_EQ(Send(kLldp, kRmqClientPublish, header, "raw bytes", kAph2), 0);
  clock.RunFor(milliseconds(10));
  EXPECT_EQ(manager->record().ReceivedFrom(kSwitching, 0).back().aph, kAph2);
  EXPECT_EQ(manager->record().ReceivedFrom(kLldp, 0).back().aph, kAph1);
  EXPECT_EQ(manager->record().ReceivedFrom(kLldp, 0).back().tracking_id.size(), 36u);

  // An answer whose call is gone still finds its asker as a publish, from this vertical only.
  header.type_id = kHostConfigType;
  header.correlation_id = "gone";
  EXPECT_EQ(Send(kSwitching, kRmqClientRpcResponse, header, "", kAph2), 0);
  EXPECT_EQ(Send(kLldp, kRmqClientRpcResponse, header, "", kAph2), -1);
  clock.RunFor(milliseconds(10));
  EXPECT_EQ(manager->record().ReceivedFrom(kSwitching, 0).back().correlation_id, "gone");

  // What cannot be sent says so.
  header.type_id = "com.orlane.zem.switching.Nonsense";
  EXPECT_EQ(Send(kSwitching, kRmqClientPublish, header, ""), -1);
  header.type_id = "com.orlane.zem.switching.VifMsg";
  EXPECT_EQ(Send(kSwitching, kRmqClientPublish, header, "\xff\xff"), -1);
  EXPECT_EQ(Send(kSwitching, kRmqMpPublish, header, ""), -1);
}

TEST_F(ChannelTest, OneRecordToEachAph) {
  StartManager();
  Register(kLldp);
  proxy_client->Start();
  clock.RunFor(kReady);
  EXPECT_THAT(ClientRegistry::Get(kLldp)->Aphs(),
              ::testing::UnorderedElementsAre(::testing::Pair(kAph1, true), ::testing::Pair(kAph2, false)));
  BusHeader header;
  header.type_id = "t";
  BusRecord record(kRmqClientPublish);
  record.SetApp(kLldp, "test").SetHeader(header).SetPayload("x");
  for (const auto& [aph, master] : ClientRegistry::Get(kLldp)->Aphs()) {
    rmqClientMessage message = record.message();
    EXPECT_EQ(ClientRegistry::Get(kLldp)->SendMessageTo(&message, aph, nullptr), 0);
  }
  rmqClientMessage message = record.message();
  EXPECT_EQ(ClientRegistry::Get(kLldp)->SendMessageTo(&message, "nobody", nullptr), -1);
  clock.RunFor(milliseconds(10));
  EXPECT_EQ(manager->record().ReceivedFrom(kLldp, 0).size(), 2u);
}

// A master change to an APH that has a stub needs no new stub, only a handshake.
TEST_F(ChannelTest, MasterChangeToAKnownAphShakesHandsAtOnce) {
  StartManager();
  Register(kSwitching);
  proxy_client->Start();
  clock.RunFor(kReady);
  ASSERT_TRUE(manager->SetMaster(kAph2));
  clock.RunFor(milliseconds(100));
  EXPECT_THAT(TypesSeenBy(kSwitching), ElementsAre(kRmqClientRegistrationAck, kRmqClientRegistrationAck));
  EXPECT_FALSE(ClientRegistry::Get(kSwitching)->IsMasterStubMissing());
  EXPECT_EQ(manager->served_app_inits()[kSwitching], 1u);
  // The same list again changes nothing.
  ASSERT_TRUE(manager->SetMaster(kAph2));
  clock.RunFor(seconds(1));
  EXPECT_TRUE(log.Contains("No Mastership change."));
  EXPECT_EQ(SeenBy(kSwitching).size(), 2u);
}

// The state is "connected" while the master has a stub, whatever other APHs have one.
TEST_F(ChannelTest, StateFollowsTheMastersStub) {
  StartManager();
  Register(kSwitching);
  proxy_client->Start();
  clock.RunFor(kReady);
  const auto state = [this](const std::string& master) {
    EXPECT_TRUE(manager->SetMaster(master));
    clock.RunFor(milliseconds(100));
    EXPECT_EQ(ClientRegistry::Get(kSwitching)->IsMasterStubMissing(),
              ClientRegistry::Get(kSwitching)->connection_state() == MpaClient::kDisconnected);
    return ClientRegistry::Get(kSwitching)->connection_state();
  };
  EXPECT_EQ(state(kAph1), MpaClient::kConnected);
  EXPECT_EQ(state(""), MpaClient::kDisconnected) << "nobody is master";
  EXPECT_EQ(state(kAph2), MpaClient::kConnected);
  ASSERT_TRUE(manager->RemoveAph(kAph1, true));
  clock.RunFor(milliseconds(100));
  EXPECT_EQ(state(kAph1), MpaClient::kDisconnected) << "the new master has no stub";
  EXPECT_EQ(state(kAph2), MpaClient::kConnected);
}

// The loss of an APH has two outcomes: the master's takes the vertical down at once, another's only loses a
// stub.
TEST_F(ChannelTest, LostAphs) {
  StartManager();
  Register(kSwitching);
  proxy_client->Start();
  clock.RunFor(kReady);
  ASSERT_TRUE(manager->RemoveAph(kAph2, true));
  clock.RunFor(milliseconds(100));
  EXPECT_THAT(TypesSeenBy(kSwitching), ElementsAre(kRmqClientRegistrationAck));
  EXPECT_THAT(Snapshot(kSwitching).stubs, ElementsAre(kAph1));
  EXPECT_EQ(Snapshot(kSwitching).timers, 1u) << "it is still listed, so it is tried again";

  ASSERT_TRUE(manager->RemoveAph(kAph1, true));
  clock.RunFor(milliseconds(100));
  EXPECT_THAT(TypesSeenBy(kSwitching), ElementsAre(kRmqClientRegistrationAck, kRmqClientClose));
  EXPECT_TRUE(ClientRegistry::Get(kSwitching)->IsMasterStubMissing());
  EXPECT_EQ(ClientRegistry::Get(kSwitching)->connection_state(), MpaClient::kDisconnected);
  EXPECT_FALSE(ClientRegistry::Get(kSwitching)->IsConnected());

  manager->AddAph(kAph1, true);
  clock.RunFor(seconds(30));
  EXPECT_THAT(TypesSeenBy(kSwitching),
              ElementsAre(kRmqClientRegistrationAck, kRmqClientClose, kRmqClientRegistrationAck));
}

// An APH that leaves the list for good is not tried again.
TEST_F(ChannelTest, RemovedAphIsForgotten) {
  StartManager();
  Register(kSwitching);
  proxy_client->Start();
  clock.RunFor(kReady);
  ASSERT_TRUE(manager->RemoveAph(kAph2, false));
  clock.RunFor(seconds(20));
  EXPECT_THAT(Snapshot(kSwitching).stubs, ElementsAre(kAph1));
  EXPECT_EQ(Snapshot(kSwitching).timers, 0u);
  EXPECT_EQ(Snapshot(kSwitching).in_flight, 0u);
  EXPECT_EQ(ClientRegistry::Get(kSwitching)->Aphs().size(), 1u);
}

// One outage is one CLOSE, whatever the state was in which it began.
TEST_F(ChannelTest, OutagesInEveryState) {
  StartManager();
  Register(kSwitching);
  Register(kLldp);
  proxy_client->Start();
  clock.RunFor(kReady);
  const auto types_since = [this](size_t begin) {
    std::vector<int32_t> types = TypesSeenBy(kSwitching);
    EXPECT_EQ(types, TypesSeenBy(kLldp));
    types.erase(types.begin(), types.begin() + static_cast<std::ptrdiff_t>(begin));
    return types;
  };
  const struct {
    const char* state;
    std::function<void()> begin;
  } outages[] = {
      {"all is well", [] {}},
      {"nobody is master", [this] { manager->SetMaster(""); }},
      {"the master has no stub",
       [this] {
         sim::ProxyInfo info;
         info.aphs = {{kAph1, false}, {kAph2, false}, {kUnknownAph, true}};
         manager->PublishRaw(info);
       }},
      {"the master is lost and unlisted at once", [this] { manager->RemoveAph(kAph1, false); }},
  };
  for (const auto& outage : outages) {
    SCOPED_TRACE(outage.state);
    const size_t before = SeenBy(kSwitching).size();
    outage.begin();
    clock.RunFor(milliseconds(500));
    manager->StopProxy();
    clock.RunFor(seconds(7));
    EXPECT_THAT(types_since(before), ElementsAre(kRmqClientClose));
    EXPECT_THAT(Snapshot(kSwitching).stubs, IsEmpty());
    EXPECT_EQ(Snapshot(kSwitching).timers, 0u);
    manager->StartProxy();
    manager->AddAph(kAph1, true);
    clock.RunFor(seconds(25));
    EXPECT_THAT(types_since(before), ElementsAre(kRmqClientClose, kRmqClientRegistrationAck));
  }
  // The proxy lives on when the master leaves.
  const size_t before = SeenBy(kSwitching).size();
  ASSERT_TRUE(manager->RemoveAph(kAph1, false));
  clock.RunFor(seconds(1));
  EXPECT_THAT(types_since(before), ElementsAre(kRmqClientClose));
  ASSERT_TRUE(manager->SetMaster(kAph2));
  clock.RunFor(seconds(1));
  EXPECT_THAT(types_since(before), ElementsAre(kRmqClientClose, kRmqClientRegistrationAck));
}

// A handshake that fails is tried after 10, 20, 30, 30 seconds without end; a success resets the delay.
TEST_F(ChannelTest, RefusedAppInitIsRetried) {
  StartManager();
  sim::AnswerRule refuse;
  refuse.kind = sim::AnswerRule::Kind::kStatus;
  refuse.count = 4;
  manager->SetRule(kSwitching, true, refuse);
  Register(kSwitching);
  proxy_client->Start();
  clock.RunFor(kReady);
  const auto requests = [this] { return manager->record().ReceivedFrom(kSwitching, 0).size(); };
  ASSERT_EQ(requests(), 1u);
  // The first request came within the spread of up to 5 of these 6 seconds.
  size_t expected = 1;
  for (const seconds delay : {seconds(10), seconds(20), seconds(30), seconds(30)}) {
    clock.RunFor(delay - kReady);
    EXPECT_EQ(requests(), expected) << delay.count();
    clock.RunFor(kReady);
    EXPECT_EQ(requests(), ++expected) << delay.count();
  }
  EXPECT_THAT(TypesSeenBy(kSwitching), ElementsAre(kRmqClientRegistrationAck));
  manager->SetRule(kSwitching, true, refuse);
  manager->SetMaster(kAph2);
  clock.RunFor(seconds(9));
  EXPECT_EQ(requests(), expected + 1);
  clock.RunFor(seconds(2));
  EXPECT_EQ(requests(), expected + 2) << "the delay began again at 10 s";
}

// Without an answer for 30 s the call is cancelled and repeated; a late answer to the old call has no effect.
TEST_F(ChannelTest, SilentAppInitStartsOver) {
  StartManager();
  sim::AnswerRule late;
  late.delay = seconds(40);
  late.count = 1;
  manager->SetRule(kSwitching, true, late);
  Register(kSwitching);
  proxy_client->Start();
  clock.RunFor(kReady + seconds(30));
  EXPECT_TRUE(log.Contains("[SwitchingVertical] Cancelling last RPC call handle for seq"));
  EXPECT_THAT(TypesSeenBy(kSwitching), ElementsAre(kRmqClientRegistrationAck));
  clock.RunFor(seconds(60));
  EXPECT_THAT(TypesSeenBy(kSwitching), ElementsAre(kRmqClientRegistrationAck));
}

// An app-init answer without a config fails the handshake and leaves the client usable.
TEST_F(ChannelTest, GarbageAppInitAnswersAreRetried) {
  StartManager();
  for (const auto kind : {sim::AnswerRule::Kind::kGarbage, sim::AnswerRule::Kind::kWrongType}) {
    sim::AnswerRule rule;
    rule.kind = kind;
    rule.count = 1;
    manager->SetRule(kSwitching, true, rule);
    if (verticals.empty()) {
      Register(kSwitching);
      proxy_client->Start();
    } else {
      manager->SetMaster(kAph2);
    }
    clock.RunFor(kReady);
    const size_t before = SeenBy(kSwitching).size();
    clock.RunFor(seconds(11));
    EXPECT_EQ(SeenBy(kSwitching).size(), before + 1);
  }
}

// A request that is not answered is removed after 300 s; a later answer has no call any more.
TEST_F(ChannelTest, StaleCallsArePurged) {
  StartManager();
  Register(kLldp);
  proxy_client->Start();
  clock.RunFor(kReady);
  sim::Manager::SendRequest request;
  request.vertical = kLldp;
  request.member = "RawPayloadMsg";
  request.text = "payload: \"x\"";
  request.correlation_id = "old";
  request.timeout = std::chrono::hours(1);
  ASSERT_EQ(manager->Send(request, [](const sim::HostAnswer&) {}), "");
  clock.RunFor(seconds(299));
  EXPECT_FALSE(log.Contains("Removing call handle, corelationId (old)"));
  clock.RunFor(seconds(310));
  EXPECT_TRUE(log.Contains("Removing call handle, corelationId (old)"));
  BusHeader header;
  header.type_id = "t";
  header.correlation_id = "old";
  EXPECT_EQ(Send(kLldp, kRmqClientRpcResponse, header, "x"), -1);
}

// Bundles carry passwords; their content never reaches the log, at any level and on neither road.
TEST_F(ChannelTest, SecretsAreLoggedBySize) {
  StartManager();
  Register("SupportBundle");
  Register(kLldp);
  proxy_client->Start();
  clock.RunFor(kReady);
  for (const char* vertical : {"SupportBundle", kLldp}) {
    sim::Manager::SendRequest request;
    request.vertical = vertical;
    request.member = "RawPayloadMsg";
    request.text = "payload: \"pass-word-1\"";
    ASSERT_EQ(manager->Send(request, [](const sim::HostAnswer&) {}), "");
    clock.RunFor(milliseconds(10));
    EXPECT_EQ(SeenBy(vertical).back().payload, "pass-word-1");
    const bool secret = vertical != kLldp;
    EXPECT_EQ(log.Contains("pass-word-1"), !secret) << vertical;
    EXPECT_EQ(log.Contains("70 61 73 73 2d 77 6f 72 64"), !secret) << vertical;
  }
}

// Lists that arrive faster than the delay of a stub do not postpone the stub, neither the first nor a later
// one.
TEST_F(ChannelTest, FrequentListsDoNotStarveTheStubs) {
  StartManager();
  Register(kSwitching);
  proxy_client->Start();
  const auto lists_for = [this](seconds time) {
    for (const TimePoint end = clock.Now() + time; clock.Now() < end;) {
      clock.RunFor(milliseconds(700));
      manager->SetMaster(kAph1);
    }
  };
  lists_for(kReady);
  EXPECT_THAT(TypesSeenBy(kSwitching), ElementsAre(kRmqClientRegistrationAck));
  EXPECT_THAT(Snapshot(kSwitching).stubs, UnorderedElementsAre(kAph1, kAph2));
  ASSERT_TRUE(manager->RemoveAph(kAph2, true));
  clock.RunFor(milliseconds(10));
  manager->AddAph(kAph2, false);
  lists_for(seconds(12));
  EXPECT_THAT(Snapshot(kSwitching).stubs, UnorderedElementsAre(kAph1, kAph2));
  // A timer of an APH that has left the list does not run on.
  ASSERT_TRUE(manager->RemoveAph(kAph2, true));
  clock.RunFor(milliseconds(10));
  ASSERT_EQ(Snapshot(kSwitching).timers, 1u);
  sim::ProxyInfo without;
  without.aphs = {{kAph1, true}};
  manager->PublishRaw(without);
  clock.RunFor(milliseconds(10));
  EXPECT_EQ(Snapshot(kSwitching).timers, 0u);
}

// A stub that lands while a new list is being taken over belongs to the old list.
TEST_F(ChannelTest, UpdateDuringCreationDropsTheStubAndStartsAgain) {
  StartManager();
  Register(kSwitching);
  proxy_client->Start();
  // Frozen bytes keep the creations in flight.
  clock.RunFor(milliseconds(900));
  network.Freeze("tcp://127.0.0.1:4096", true);
  clock.RunFor(kReady);
  ASSERT_GT(Snapshot(kSwitching).in_flight, 0u);
  Private(kSwitching)->updateStubMap();
  EXPECT_TRUE(Snapshot(kSwitching).update_pending);
  Private(kSwitching)->updateStubMap();
  EXPECT_TRUE(log.Contains("updateStubMap: Already Pending"));
  network.Freeze("tcp://127.0.0.1:4096", false);
  clock.RunFor(milliseconds(600));
  EXPECT_TRUE(log.Contains("update stub is pending."));
  EXPECT_FALSE(Snapshot(kSwitching).update_pending);
  clock.RunFor(kReady);
  EXPECT_THAT(Snapshot(kSwitching).stubs, UnorderedElementsAre(kAph1, kAph2));
  EXPECT_THAT(TypesSeenBy(kSwitching), ElementsAre(kRmqClientRegistrationAck));
}

// A vertical's callback may take long or wait for another thread; a list that arrives meanwhile is not
// delayed.
TEST_F(ChannelTest, NoLockIsHeldWhileAVerticalIsCalled) {
  StartManager();
  Register(kLldp);
  bool in_uuid_callback = false;
  const auto list_comes = [this] {
    NativeThread other(NativeThread::Options{}, [this] { Private(kLldp)->updateStubMap(); });
    other.Join();
  };
  ClientRegistry::Get(kLldp)->Start([&](const std::string&) {
    if (!std::exchange(in_uuid_callback, true)) list_comes();
  });
  on_record = [&](const Seen& record) {
    if (record.type == kRmqClientRegistrationAck) list_comes();
  };
  proxy_client->Start();
  // Twice: the list that comes with the first ACK makes the other stub start again.
  clock.RunFor(2 * kReady);
  ASSERT_TRUE(manager->SetMaster(kAph2));
  clock.RunFor(seconds(1));
  EXPECT_TRUE(in_uuid_callback);
  EXPECT_THAT(TypesSeenBy(kLldp), ElementsAre(kRmqClientRegistrationAck, kRmqClientRegistrationAck));
}

// The context engine registers its verticals late, when the connection is up already.
TEST_F(ChannelTest, LateVerticalCatchesUp) {
  StartManager();
  proxy_client->Start();
  clock.RunFor(kReady);
  Register("Context-Health");
  clock.RunFor(kReady);
  EXPECT_THAT(TypesSeenBy("Context-Health"), ElementsAre(kRmqClientRegistrationAck));
}

// A name has one client: a second one would receive the requests of the first without having its calls.
TEST_F(ChannelTest, SecondRegistrationOfANameIsRefused) {
  StartManager();
  Register(kLldp);
  ClientRegistry::Register(
      provider, [](rmqClientMessage*) { ADD_FAILURE() << "this client does not exist"; }, kLldp, "unused", 1,
      9002, 30000000, 5000000);
  EXPECT_TRUE(log.Contains("LldpVertical is registered already"));
  proxy_client->Start();
  clock.RunFor(kReady);
  on_record = [this](const Seen& record) {
    if (record.type != kRmqMpRpcRequest) return;
    EXPECT_EQ(Send(kLldp, kRmqClientRpcResponse, record.header, "answer"), 0);
  };
  sim::Manager::SendRequest request;
  request.vertical = kLldp;
  request.member = "RawPayloadMsg";
  request.text = "payload: \"x\"";
  int status = -1;
  ASSERT_EQ(manager->Send(request, [&](const sim::HostAnswer& a) { status = a.status.code(); }), "");
  clock.RunFor(milliseconds(10));
  EXPECT_EQ(status, 0);
}

TEST_F(ChannelTest, UnregisteredVerticalLeavesNothingBehind) {
  StartManager();
  Register(kSwitching);
  proxy_client->Start();
  clock.RunFor(kReady);
  std::weak_ptr<MpaClient> weak = ClientRegistry::Get(kSwitching);
  ClientRegistry::Unregister(kSwitching);
  clock.RunFor(seconds(1));
  EXPECT_TRUE(weak.expired());
  manager->SetMaster(kAph2);
  clock.RunFor(seconds(1));
  EXPECT_EQ(SeenBy(kSwitching).size(), 1u);
}

}  // namespace
}  // namespace zem
