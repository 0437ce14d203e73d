#include <cstdlib>
#include <deque>

#include "mpaclient/client_registry.h"
#include "tests/mpaclient/channel_fixture.h"

namespace zem {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;

// A bus library with scripted results.
class ScriptedBus final : public RmqClientInterface {
 public:
  int NETEventLoop(int) override { return 0; }
  int InitNETClient(const char* app_id, const char* app_type, int, rmqClientCallback callback) override {
    asked.emplace_back(std::string(app_type) + "/" + app_id);
    deliver = callback;
    if (on_attempt) on_attempt();
    if (cookies.empty()) return kBusConnectFail;
    const int cookie = cookies.front();
    cookies.pop_front();
    return cookie;
  }
  int CloseClient(int cookie) override {
    closed.push_back(cookie);
    if (closed_too != nullptr) closed_too->push_back(cookie);
    return 0;
  }
  int SendToVSM(rmqClientMessage*) override { return send_result; }
  int InitNETClient_Custom(const char*, const char*, int, void*, rmqClientCallback,
                           const rmqClientSettings*) override {
    return kBusConnectFail;
  }
  int StopNETEventLoop() override { return 0; }

  std::function<void()> on_attempt;
  std::vector<std::string> asked;
  std::deque<int> cookies;
  std::vector<int> closed;
  std::vector<int>* closed_too = nullptr;  // outlives the bus
  int send_result = 0;
  rmqClientCallback deliver = nullptr;
};

class BusRoadTest : public ChannelTest {
 protected:
  void Start(const std::string& name) {
    verticals.push_back(name);
    ClientRegistry::Register(
        provider, [this, name](rmqClientMessage* message) { Take(name, *message); }, name, "id-1", 1,
        MpaClient::kBusPort, 30000000, 5000000, bus);
    ClientRegistry::Get(name)->Start(nullptr);
  }

  void Deliver(const std::string& name, BusMessageType type, int cookie) {
    BusRecord record(type);
    record.SetApp(name, "id-1").SetCookie(cookie);
    rmqClientMessage message = record.message();
    message.free_block = std::malloc(16);
    bus->deliver(nullptr, &message);
    EXPECT_EQ(message.free_block, nullptr);
  }

  boost::intrusive_ptr<ScriptedBus> bus{new ScriptedBus};
};

// A broker that is away is tried again after each retry time.  A connection without an ACK is closed.
TEST_F(BusRoadTest, ConnectsRetriesAndWaitsForTheAck) {
  Start("SwitchingVertical");
  EXPECT_TRUE(log.Contains("connecting to mpa return cookie [CONNECT_FAIL]"));
  bus->cookies = {7, 8};
  clock.RunFor(seconds(5));
  EXPECT_EQ(bus->asked.size(), 2u);
  EXPECT_EQ(bus->asked.back(), "SwitchingVertical/id-1");
  EXPECT_EQ(ClientRegistry::Get("SwitchingVertical")->cookie(), 7);
  EXPECT_FALSE(ClientRegistry::Get("SwitchingVertical")->IsConnected());
  clock.RunFor(seconds(30));
  EXPECT_THAT(bus->closed, ElementsAre(7)) << "no ACK came in time";
  EXPECT_EQ(ClientRegistry::Get("SwitchingVertical")->cookie(), 8);
  Deliver("SwitchingVertical", kRmqClientRegistrationAck, 8);
  EXPECT_TRUE(ClientRegistry::Get("SwitchingVertical")->IsConnected());
  clock.RunFor(seconds(60));
  EXPECT_THAT(bus->closed, ElementsAre(7));
  EXPECT_EQ(bus->asked.size(), 3u);
}

TEST_F(BusRoadTest, CloseCountsOnlyWithItsOwnCookie) {
  bus->cookies = {7, 9};
  Start("SomeVertical");
  EXPECT_TRUE(log.Contains("Unknown app type SomeVertical"));
  Deliver("SomeVertical", kRmqClientRegistrationAck, 7);
  Deliver("SomeVertical", kRmqClientClose, 6);
  EXPECT_TRUE(log.Contains("Message's cookieId [6] does not match with [7], ignored"));
  EXPECT_TRUE(ClientRegistry::Get("SomeVertical")->IsConnected());
  Deliver("SomeVertical", kRmqClientClose, 7);
  EXPECT_FALSE(ClientRegistry::Get("SomeVertical")->IsConnected());
  EXPECT_EQ(ClientRegistry::Get("SomeVertical")->cookie(), -1);
  clock.RunFor(seconds(1));
  EXPECT_EQ(ClientRegistry::Get("SomeVertical")->cookie(), 9);
  EXPECT_THAT(TypesSeenBy("SomeVertical"), ElementsAre(kRmqClientRegistrationAck, kRmqClientClose));
}

// A stop during an attempt that takes long must close what the attempt opens.
TEST_F(BusRoadTest, EndDuringAnAttemptLeavesNothingOpen) {
  Start("SomeVertical");
  bus->cookies = {7, 8};
  bus->on_attempt = [] { ClientRegistry::Get("SomeVertical")->Stop(); };
  clock.RunFor(seconds(5));
  EXPECT_THAT(bus->closed, ElementsAre(7));
  EXPECT_EQ(ClientRegistry::Get("SomeVertical")->cookie(), -1);
  EXPECT_EQ(ClientRegistry::Get("SomeVertical")->connection_state(), MpaClient::kDisconnected);
  clock.RunFor(seconds(60));
  EXPECT_EQ(bus->asked.size(), 2u) << "no timer goes on";

  bus->on_attempt = [this] {
    ClientRegistry::Unregister("SomeVertical");
    bus.reset();
  };
  ScriptedBus* const lib = bus.get();
  std::vector<int> closed;
  lib->closed_too = &closed;
  const auto client = ClientRegistry::Get("SomeVertical");
  client->Start(nullptr);
  EXPECT_THAT(closed, ElementsAre(8));
  EXPECT_EQ(client->cookie(), -1);
}

TEST_F(BusRoadTest, OnlyInboundTypesAreDelivered) {
  bus->cookies = {7};
  Start("SomeVertical");
  for (const BusMessageType type :
       {kRmqClientPayload, kRmqMpRpcRequest, kRmqMpRpcResponse, kRmqClientRpcResponse, kRmqMpPublish}) {
    Deliver("SomeVertical", type, 7);
  }
  EXPECT_EQ(SeenBy("SomeVertical").size(), 5u);
  Deliver("SomeVertical", kRmqHostPayload, 7);
  EXPECT_EQ(SeenBy("SomeVertical").size(), 5u);
  EXPECT_TRUE(log.Contains("Unrecognized RMQ messageType [7] from MPA."));
  Deliver("Nobody", kRmqClientPayload, 7);
  EXPECT_TRUE(log.Contains("No callback function for app type Nobody"));
  EXPECT_EQ(Send("SomeVertical", kRmqClientPublish, {}, "x"), 0);
  bus->send_result = kBusNoSession;
  EXPECT_EQ(Send("SomeVertical", kRmqClientPublish, {}, "x"), kBusNoSession);
  EXPECT_TRUE(log.Contains("SomeVertical failed to send message to MPA"));
}

// A callback that holds up the delivering thread is logged with its vertical.
TEST_F(BusRoadTest, SlowCallbackIsLogged) {
  bus->cookies = {7};
  Start("SomeVertical");
  on_record = [](const Seen&) { SleepFor(milliseconds(400)); };
  Deliver("SomeVertical", kRmqClientPayload, 7);
  EXPECT_TRUE(log.Contains("Vertical (SomeVertical) rx-callback took (400) msecs"));
}

}  // namespace
}  // namespace zem
