#include "platform/core/thread.h"
#include "platform/rpc/connection.h"
#include "tests/platform/rpc/rpc_fixture.h"

namespace zem::rpc {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

// Three processes: an agent and a manager, each connected to a proxy that forwards.
class GatewayTest : public RpcTest {
 protected:
  GatewayTest() {
    for (AsioZemProvider* provider : {&agent_, &manager_}) provider->RunAsync(1);
    server_provider_.rpc().EnableForwarding();
    ConnectionOptions options;
    options.rpc.forward = true;
    Serve(options);
    agent_connections_ = Connect(agent_, "agent");
    manager_connections_ = Connect(manager_, "manager");
    manager_server_ = ServeId(manager_, "aph-1", manager_service_);
    agent_server_ = ServeId(agent_, "SwitchingVertical", agent_service_);
    clock_.Settle();
  }
  ~GatewayTest() override {
    for (AsioZemProvider* provider : {&agent_, &manager_}) provider->StopAndWait(true);
    Shutdown();
  }

  std::unique_ptr<ConnectionManager> Connect(AsioZemProvider& provider, const std::string& name) {
    auto connections = std::make_unique<ConnectionManager>(provider.rpc());
    ConnectionParams params;
    params.options.rpc = RpcConnectionOptions::Gateway(true, true);
    params.on_closed = [this, name](CloseReason r) { journal_.Add(name + " down " + CloseReasonToCStr(r)); };
    connections->RequestConnection(net::Endpoint(kEndpoint), params);
    clock_.Settle();
    return connections;
  }

  static std::unique_ptr<Server> ServeId(AsioZemProvider& provider, const std::string& id,
                                         std::shared_ptr<EchoServer> service) {
    return ServerBuilder(provider.rpc())
        .AddLocalEndpointId(id)
        .RegisterService(std::move(service))
        .BuildStarted();
  }

  void WatchStream(EchoService::Stub& stub, const std::string& name) {
    stub.SetOnStreamDown([this, name](CloseReason r) {
      journal_.Add(name + " stream " + std::to_string(static_cast<int>(r)));
    });
  }

  AsioZemProvider agent_;
  AsioZemProvider manager_;
  std::shared_ptr<EchoServer> agent_service_ = std::make_shared<EchoServer>(server_journal_, "agent");
  std::shared_ptr<EchoServer> manager_service_ = std::make_shared<EchoServer>(server_journal_, "manager");
  std::unique_ptr<ConnectionManager> agent_connections_;
  std::unique_ptr<ConnectionManager> manager_connections_;
  std::unique_ptr<Server> agent_server_;
  std::unique_ptr<Server> manager_server_;
};

// Channel and call ids of the two directions are equal in number: they must not be taken for one another.
TEST_F(GatewayTest, CallsPassBothWaysThroughTheProxy) {
  auto up = *MakeStub(agent_, "zem://aph-1", nullptr, 100);
  auto down = *MakeStub(manager_, "zem://SwitchingVertical", nullptr, 100);
  for (int i = 0; i < 3; ++i) {
    up.Echo(ClientContext(), Text("hold"), Observe("up" + std::to_string(i)));
    down.Echo(ClientContext(), Text("hold"), Observe("down" + std::to_string(i)));
  }
  up.Echo(ClientContext("tn-1"), Text("who"), Observe("up"));
  down.Echo(ClientContext(), Text("who"), Observe("down"));
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), UnorderedElementsAre("up next tn-1 at aph-1", "up status 0",
                                                    "down next me at SwitchingVertical", "down status 0"));
  auto at_manager = manager_service_->TakeHeld();
  auto at_agent = agent_service_->TakeHeld();
  ASSERT_EQ(at_manager.size(), 3u);
  ASSERT_EQ(at_agent.size(), 3u);
  at_manager[1].Finish(Text("m"));
  at_agent[2].Finish(Text("a"));
  clock_.Settle();
  EXPECT_THAT(journal_.Take(),
              UnorderedElementsAre("up1 next m", "up1 status 0", "down2 next a", "down2 status 0"));
}

// A proxy's own process opens channels towards the agent over the connection that the agent has made.
TEST_F(GatewayTest, TheAcceptingSideReachesIdsOfThePeerAlsoThoseRegisteredLater) {
  auto stub = MakeStub(server_provider_, "zem://SwitchingVertical", nullptr, 100);
  ASSERT_TRUE(stub);
  int status = 0;
  EXPECT_FALSE(MakeStub(server_provider_, "zem://Traceflow", &status));
  const auto traceflow = ServeId(agent_, "Traceflow", agent_service_);
  clock_.Settle();
  auto later = MakeStub(server_provider_, "zem://Traceflow", nullptr, 100);
  ASSERT_TRUE(later);
  later->Echo(ClientContext(), Text("hi"), Observe("c"));
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ElementsAre("c next agent:hi", "c status 0"));
}

TEST_F(GatewayTest, ATargetThatLeavesIsUnreachableWhileTheConnectionLives) {
  const auto second = ServeId(manager_, "aph-2", manager_service_);
  clock_.Settle();
  auto gone = *MakeStub(agent_, "zem://aph-1", nullptr, 100);
  auto stays = *MakeStub(agent_, "zem://aph-2", nullptr, 100);
  WatchStream(gone, "aph-1");
  WatchStream(stays, "aph-2");
  gone.Echo(ClientContext(), Text("hold"), Observe("c"));
  clock_.Settle();

  manager_server_.reset();  // closes its channels itself, ahead of its id
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ElementsAre("c status 53", "aph-1 stream 3"));

  network_.SetAway(kEndpoint, true);
  manager_connections_.reset();  // the whole manager goes
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), UnorderedElementsAre("aph-2 stream 4", "manager down LOCAL_CLOSE"));
  int status = 0;
  EXPECT_FALSE(MakeStub(agent_, "zem://aph-2", &status));
  EXPECT_EQ(status, 1);
}

TEST_F(GatewayTest, TheLossOfTheProxyIsAConnectionLossForBothSides) {
  auto up = *MakeStub(agent_, "zem://aph-1", nullptr, 100);
  auto down = *MakeStub(manager_, "zem://SwitchingVertical", nullptr, 100);
  WatchStream(up, "up");
  WatchStream(down, "down");
  network_.Break(kEndpoint);
  clock_.Settle();
  EXPECT_THAT(journal_.Take(),
              UnorderedElementsAre("up stream 5", "down stream 5", "agent down CONNECTION_LOST",
                                   "manager down CONNECTION_LOST"));
  clock_.RunFor(seconds(2));
  auto again = MakeStub(manager_, "zem://SwitchingVertical", nullptr, 100);
  ASSERT_TRUE(again);
  again->Count(ClientContext(), Text("", 2), Observe("c"));
  clock_.Settle();
  EXPECT_THAT(journal_.lines(), Contains("c status 0"));
}

// One side does not read: the proxy must stop taking from the other instead of keeping everything.
TEST_F(GatewayTest, ForwardingKeepsBackPressure) {
  auto stub = *MakeStub(agent_, "zem://aph-1", nullptr, 100);
  stub.Count(ClientContext(), Text("hold"), Observe("c"));
  clock_.Settle();
  auto call = manager_service_->TakeHeld()[0];
  stub.Echo(ClientContext(), Text("x"), Observe("x", [](const Status&) { SleepFor(seconds(4)); }));
  clock_.RunFor(milliseconds(1));
  journal_.Take();
  EchoMsg big;
  big.set_payload(std::string(1 << 20, 'x'));
  size_t written = 0;
  for (; written < 100 && call.Write(big); ++written) clock_.Settle();
  EXPECT_GE(written, 30u) << "16 MiB here and 16 MiB at the proxy";
  EXPECT_LE(written, 40u);
  clock_.RunFor(seconds(5));
  EXPECT_TRUE(call.Write(big));
  clock_.Settle();
  EXPECT_EQ(journal_.Take().size(), written + 1) << "and nothing is lost";
}

// A peer without the gateway's inbound flag may not be called.
TEST_F(GatewayTest, WithoutInboundNoIdIsAnnouncedOrReached) {
  AsioZemProvider plain;
  plain.RunAsync(1);
  const auto server = ServeId(plain, "Hidden", agent_service_);
  ConnectionManager connections(plain.rpc());
  connections.RequestConnection(net::Endpoint(kEndpoint), ConnectionParams());
  clock_.Settle();
  int status = 0;
  EXPECT_FALSE(MakeStub(server_provider_, "zem://Hidden", &status));
  plain.StopAndWait(true);
}

}  // namespace
}  // namespace zem::rpc
