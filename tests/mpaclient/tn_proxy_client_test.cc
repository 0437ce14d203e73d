#include <deque>

#include "sim/manager/proxy.h"
#include "tests/mpaclient/channel_fixture.h"

namespace zem {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kInfo = "tcp://127.0.0.1:9004";
constexpr const char* kForwarding = "tcp://127.0.0.1:4096";

// The proxy alone, with information that the test sets.
class TnProxyClientTest : public ::testing::Test {
 protected:
  TnProxyClientTest() : client(std::make_shared<TnProxyClientCommon>("tarvik", kInfo, kForwarding)) {
    client->SetTnProxyConnectionUp("v", [this] { Note("up"); });
    client->SetTnProxyConnectionDown("v", [this](rpc::CloseReason) { Note("down"); });
    client->SetUpdateStubs("v", [this] { Note("update"); });
  }
  ~TnProxyClientTest() override { client->Stop(); }

  void Note(const char* what) {
    std::lock_guard lock(mutex);
    events.emplace_back(what);
  }
  std::vector<std::string> TakeEvents() {
    std::lock_guard lock(mutex);
    return std::exchange(events, {});
  }
  static sim::ProxyInfo List(bool master) {
    sim::ProxyInfo info;
    info.transport_node_id = kTn;
    info.version = {4, 2};
    info.aphs = {{kAph1, master}, {kAph2, !master}};
    return info;
  }

  test::LogCapture log;
  VirtualClock clock;
  rpc::MemoryNetwork network;
  std::mutex mutex;
  std::vector<std::string> events;
  std::shared_ptr<TnProxyClientCommon> client;
};

// Stub work starts with whichever of forwarding connection and list comes second, and connection-up comes
// first.
TEST_F(TnProxyClientTest, ListAndForwardingMeetInAnyOrder) {
  sim::Proxy proxy(kInfo, kForwarding);
  network.SetAway(kForwarding, true);
  proxy.Publish(List(true));
  client->Start();
  clock.RunFor(seconds(1));
  EXPECT_THAT(TakeEvents(), IsEmpty());
  EXPECT_TRUE(log.Contains("Invoking NotifyClients update_stubs:0 disconnect_mps:0"));
  network.SetAway(kForwarding, false);
  clock.RunFor(seconds(6));
  EXPECT_THAT(TakeEvents(), ElementsAre("up", "update"));
  EXPECT_TRUE(client->connected_for_forwarding());

  network.Break(kInfo);
  network.SetAway(kInfo, true);
  network.Break(kForwarding);
  clock.RunFor(seconds(6));
  // Without a list of this connection there is nothing to update.
  EXPECT_THAT(TakeEvents(), ElementsAre("down", "up"));
  EXPECT_EQ(client->aphs().size(), 2u) << "the old list stays";
  network.SetAway(kInfo, false);
  clock.RunFor(seconds(6));
  EXPECT_THAT(TakeEvents(), ElementsAre("update"));
}

TEST_F(TnProxyClientTest, ListsReplaceTheState) {
  sim::Proxy proxy(kInfo, kForwarding);
  client->Start();
  clock.RunFor(seconds(1));
  TakeEvents();
  uint32_t major = 0;
  uint32_t minor = 0;
  EXPECT_FALSE(client->GetMpVersion(&major, &minor));

  proxy.Publish(List(true));
  clock.RunFor(milliseconds(10));
  EXPECT_THAT(TakeEvents(), ElementsAre("update"));
  EXPECT_THAT(client->aphs(), ElementsAre(std::pair(kAph1, true), std::pair(kAph2, false)));
  EXPECT_EQ(client->getTnUuidStr(), kTn);
  EXPECT_TRUE(client->GetMpVersion(&major, &minor));
  EXPECT_EQ(major, 4u);

  // Empty: as if nothing had come, but for what else the message holds.
  sim::ProxyInfo empty;
  empty.version = {5, 0};
  proxy.Publish(empty);
  clock.RunFor(milliseconds(10));
  EXPECT_THAT(TakeEvents(), IsEmpty());
  EXPECT_EQ(client->aphs().size(), 2u);
  EXPECT_TRUE(client->GetMpVersion(&major, &minor));
  EXPECT_EQ(major, 5u);

  // A bad entry ends the reading, tells nobody, and leaves what was read.
  sim::ProxyInfo bad = List(false);
  bad.aphs[1].master.reset();
  proxy.Publish(bad);
  clock.RunFor(milliseconds(10));
  EXPECT_THAT(TakeEvents(), IsEmpty());
  EXPECT_THAT(client->aphs(), ElementsAre(std::pair(kAph1, false)));
  EXPECT_TRUE(log.Contains("applProxyInfoMsg does not have master field"));
  bad.aphs[0].id.reset();
  proxy.Publish(bad);
  clock.RunFor(milliseconds(10));
  EXPECT_THAT(client->aphs(), IsEmpty());
  EXPECT_TRUE(log.Contains("errorCode=\"MPA00104\""));
}

// A subscription that the proxy ends while the connection lives is renewed once per end.
TEST_F(TnProxyClientTest, EndedSubscriptionIsRenewed) {
  sim::Proxy proxy(kInfo, kForwarding);
  proxy.Publish(List(true));
  client->Start();
  clock.RunFor(seconds(1));
  for (int i = 0; i < 3; ++i) {
    TakeEvents();
    proxy.EndSubscriptions(13);
    EXPECT_EQ(proxy.subscribers(), 0u);
    clock.RunFor(milliseconds(900));
    EXPECT_EQ(proxy.subscribers(), 0u);
    clock.RunFor(milliseconds(200));
    EXPECT_EQ(proxy.subscribers(), 1u);
    EXPECT_THAT(TakeEvents(), ElementsAre("update"));
  }
  clock.RunFor(seconds(60));
  EXPECT_EQ(log.Count("ApplProxyInfoService: Subscribed."), 4u);
}

// A proxy that accepts the connection without having the service is tried each second; after 100 failures the
// connection is made anew.
TEST_F(TnProxyClientTest, HundredStubFailuresStartOver) {
  AsioZemProvider other;
  rpc::ServerBuilder builder(other.rpc());
  builder.AddListeningEndpoint(net::Endpoint(kInfo));
  const auto server = builder.BuildStarted();
  other.RunAsync(1);
  client->Start();
  clock.RunFor(seconds(98));
  EXPECT_EQ(log.Count("TeardownConnection status:1"), 0u);
  clock.RunFor(seconds(4));
  EXPECT_EQ(log.Count("TeardownConnection status:1"), 1u);
  EXPECT_EQ(log.Count("Connected with TnProxy\n") + log.Count("] Connected with TnProxy"), 2u);
  client->Stop();
  other.StopAndWait(true);
}

TEST_F(TnProxyClientTest, StartAndStopTwice) {
  sim::Proxy proxy(kInfo, kForwarding);
  client->Start();
  client->Start();
  EXPECT_TRUE(log.Contains("TnProxyClientCommon Start, Already started"));
  clock.RunFor(seconds(1));
  client->Stop();
  client->Stop();
  EXPECT_TRUE(log.Contains("TnProxyClientCommon Stop, Already stopped"));
  clock.RunFor(seconds(60));
  EXPECT_EQ(proxy.subscribers(), 0u);
}

}  // namespace
}  // namespace zem
