#include "platform/rpc/connection.h"

#include "platform/core/thread.h"
#include "platform/provider/timer.h"

#include "tests/platform/rpc/rpc_fixture.h"

namespace zem::rpc {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class ConnectionTest : public RpcTest {
 protected:
  ConnectionTest() : manager_(std::make_unique<ConnectionManager>(client_provider_.rpc())) {}
  ~ConnectionTest() override { Shutdown(); }  // what is told at the end is told to this fixture

  // The endpoint is managed by `manager_`; up, down and their times go to the journal.
  bool Request(RpcConnectionOptions rpc = {}) {
    ConnectionParams params;
    params.on_connected = [this](const ConnectionInfo& info) {
      std::string line = "up";
      for (const std::string& id : info.peer_ids) line += " " + id;
      Stamp(line);
    };
    params.on_closed = [this](CloseReason reason) {
      Stamp(std::string("down ") + CloseReasonToCStr(reason));
    };
    params.options.rpc = rpc;
    return manager_->RequestConnection(net::Endpoint(kEndpoint), params);
  }

  void Stamp(const std::string& what) {
    journal_.Add(std::to_string((clock_.Now() - begin_) / milliseconds(1)) + " " + what);
  }

  TimePoint begin_ = clock_.Now();
  std::unique_ptr<ConnectionManager> manager_;
};

// A store that comes late is found by the policy's delays, and a lost one again from the first delay on.
TEST_F(ConnectionTest, RetriesAndReconnectsByItsPolicies) {
  Serve();
  network_.SetAway(kEndpoint, true);
  EXPECT_TRUE(Request());
  EXPECT_FALSE(Request()) << "it is requested already";
  clock_.RunFor(milliseconds(6900));
  network_.SetAway(kEndpoint, false);
  clock_.RunFor(seconds(1));
  EXPECT_THAT(journal_.Take(), ElementsAre("7000 up Alarms"));

  begin_ = clock_.Now();
  network_.SetAway(kEndpoint, true);
  network_.Break(kEndpoint);
  clock_.RunFor(milliseconds(12100));  // tries at 1, 3, 7, 12 s
  network_.SetAway(kEndpoint, false);
  clock_.RunFor(milliseconds(4800));
  EXPECT_THAT(journal_.Take(), ElementsAre("0 down CONNECTION_LOST"));
  clock_.RunFor(milliseconds(200));
  EXPECT_THAT(journal_.Take(), ElementsAre("17000 up Alarms"));
}

// At a loss: every call of a channel in order, then the channel's hook, then the connection's callback.
TEST_F(ConnectionTest, ALossIsToldInOrder) {
  Serve();
  Request();
  auto first = *MakeStub(client_provider_, kEndpoint, nullptr, 100);
  auto second = *MakeStub(client_provider_, kEndpoint, nullptr, 100);
  first.SetOnStreamDown(
      [this](CloseReason r) { journal_.Add("first " + std::to_string(static_cast<int>(r))); });
  second.SetOnStreamDown(
      [this](CloseReason r) { journal_.Add("second " + std::to_string(static_cast<int>(r))); });
  second.Echo(ClientContext(), Text("hold"), Observe("s1"));
  for (const char* name : {"f1", "f2", "f3"}) first.Echo(ClientContext(), Text("hold"), Observe(name));
  clock_.Settle();
  journal_.Take();
  begin_ = clock_.Now();
  network_.Break(kEndpoint);
  clock_.Settle();
  const auto ours = journal_.Take();
  EXPECT_THAT(ours, ElementsAre("f1 status 53", "f2 status 53", "f3 status 53", "first 5", "s1 status 53",
                                "second 5", "0 down CONNECTION_LOST"));

  // A hook that comes after the loss hears of it, once.
  second.SetOnStreamDown([this](CloseReason) { journal_.Add("twice"); });
  auto third = *MakeStub(client_provider_, kEndpoint, nullptr, 3000);
  network_.Break(kEndpoint);
  clock_.Settle();
  journal_.Take();
  third.SetOnStreamDown([this](CloseReason reason) {
    EXPECT_TRUE(client_provider_.RunsOnThisThread()) << "never in the caller's stack";
    journal_.Add("third " + std::to_string(static_cast<int>(reason)));
  });
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ElementsAre("third 5"));
}

TEST_F(ConnectionTest, TeardownForgetsAtOnceAndTellsOnce) {
  Serve();
  Request();
  auto stub = *MakeStub(client_provider_, kEndpoint, nullptr, 100);
  stub.SetOnStreamDown([this](CloseReason r) { Stamp("stream " + std::to_string(static_cast<int>(r))); });
  stub.Echo(ClientContext(), Text("hold"), Observe("c"));
  clock_.Settle();
  journal_.Take();
  begin_ = clock_.Now();
  EXPECT_TRUE(manager_->TeardownConnection(net::Endpoint(kEndpoint)));
  EXPECT_FALSE(manager_->TeardownConnection(net::Endpoint(kEndpoint)));
  EXPECT_TRUE(Request()) << "the endpoint is free again at once";
  clock_.RunFor(seconds(10));
  EXPECT_EQ(network_.connections(kEndpoint), 1u);
  EXPECT_THAT(journal_.Take(),
              UnorderedElementsAre("c status 53", "0 stream 6", "0 down LOCAL_CLOSE", "0 up Alarms"));
}

// The other process hangs: no byte for 15 s ends the connection, while an idle pair of healthy ones stays up.
TEST_F(ConnectionTest, HeartbeatTellsADeadPeerFromAnIdleOne) {
  Serve();
  Request();
  clock_.RunFor(seconds(3600));
  EXPECT_THAT(journal_.Take(), ElementsAre("0 up Alarms"));
  begin_ = clock_.Now();
  network_.Freeze(kEndpoint, true);
  network_.SetAway(kEndpoint, true);
  clock_.RunFor(seconds(16));
  const auto lines = journal_.Take();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], ::testing::EndsWith("down HEARTBEAT_TIMEOUT"));
  EXPECT_THAT(std::stoi(lines[0]), ::testing::AllOf(::testing::Ge(10000), ::testing::Le(15000)));
}

// An observer that takes its time is not a dead peer, on neither side: nothing is read meanwhile, but
// heartbeats go.
TEST_F(ConnectionTest, ASlowObserverKeepsItsConnection) {
  client_provider_.RunAsync(1);  // a second thread
  Serve();
  Request();
  auto stub = *MakeStub(client_provider_, kEndpoint, nullptr, 100);
  stub.Echo(ClientContext(), Text("a"), Observe("a", [](const Status&) { SleepFor(seconds(60)); }));
  stub.Echo(ClientContext(), Text("b"), Observe("b"));
  clock_.RunFor(seconds(120));
  EXPECT_THAT(journal_.Take(),
              ElementsAre("0 up Alarms", "a next store:a", "a status 0", "b next store:b", "b status 0"));
}

// Connecting succeeds but nobody introduces himself.
TEST_F(ConnectionTest, ASilentListenerIsGivenUpAfterTheTimeout) {
  Serve();
  network_.Freeze(kEndpoint, true);
  int status = -1;
  const TimePoint begin = clock_.Now();
  StubRequest request;
  request.target = net::Endpoint(kEndpoint);
  request.policy = RetryPolicy(1000, 1000, 1.0, 0);
  TimePoint failed{};
  client_provider_.rpc().stubs().create<EchoService::Stub>(request, [&](auto, const Status& s) {
    status = s.code();
    failed = clock_.Now();
  });
  clock_.RunFor(seconds(5));
  EXPECT_EQ(status, 1);
  EXPECT_EQ(failed - begin, milliseconds(2000));
}

TEST_F(ConnectionTest, StubCreationTriesWaitsAndGivesUp) {
  Serve();
  struct Case {
    const char* what;
    const char* target;
    RetryPolicy policy;
    int64_t timeout_ms;
    milliseconds expected;
  };
  network_.SetAway("tcp://127.0.0.1:1", true);
  for (const Case& c :
       {Case{"refused, three tries", "tcp://127.0.0.1:1", {1000, 1000, 1.0, 2}, 0, milliseconds(2000)},
        Case{"time-out first", "tcp://127.0.0.1:1", {1000, 1000, 1.0, -1}, 2500, milliseconds(2500)},
        Case{"no route", "zem://nobody", {1000, 10000, 2.0, 2}, 0, milliseconds(3000)},
        Case{"not an endpoint", "tcp://localhost:1", {1000, 1000, 1.0, 0}, 0, milliseconds(0)}}) {
    StubRequest request;
    request.source_id = "me";
    request.target = net::Endpoint(c.target);
    request.policy = c.policy;
    request.timeout_ms = c.timeout_ms;
    int calls = 0;
    Duration took{};
    const TimePoint begin = clock_.Now();
    const auto creator = client_provider_.rpc().stubs().create<EchoService::Stub>(
        request, [&](std::optional<EchoService::Stub> stub, const Status& status) {
          ++calls;
          took = clock_.Now() - begin;
          EXPECT_FALSE(stub);
          EXPECT_TRUE(client_provider_.RunsOnThisThread()) << "never in the caller's stack";
          EXPECT_EQ(status.code(), 1);
        });
    clock_.RunFor(seconds(20));
    EXPECT_EQ(calls, 1) << c.what;
    EXPECT_EQ(took, c.expected) << c.what;
    if (std::string(c.target) == "zem://nobody") {
      EXPECT_EQ(creator->name(), "RpcStubCreator[EchoService, me, nobody]");
    }
  }
}

// Another version of the service, or one that the server does not have, fails here and not in a call.
TEST_F(ConnectionTest, UnknownServiceIdOrVersionGivesNoStub) {
  Serve();
  int status = 0;
  EXPECT_FALSE(MakeStub<OtherService::Stub>(client_provider_, kEndpoint, &status));
  EXPECT_EQ(status, 1);
  static constexpr ServiceInfo kOlder{"orlane.zem.testing.EchoService", 4, 12345};
  StubRequest request;
  request.target = net::Endpoint(kEndpoint);
  request.policy = RetryPolicy(1, 1, 1.0, 0);
  int failed = 0;
  client_provider_.rpc().stubs().CreateChannel(kOlder, request,
                                               [&](std::shared_ptr<Channel> channel, const Status& s) {
                                                 EXPECT_FALSE(channel);
                                                 failed = s.code();
                                               });
  clock_.Settle();
  EXPECT_EQ(failed, 1);
}

// A channel that is opened after its creator was cancelled or timed out has to be closed, not kept for
// nobody.
TEST_F(ConnectionTest, AChannelThatComesTooLateIsClosed) {
  Serve();
  Request();
  clock_.Settle();
  for (const bool cancel : {true, false}) {
    network_.Freeze(kEndpoint, true);
    StubRequest request;
    request.target = net::Endpoint(kEndpoint);
    request.timeout_ms = 1000;
    int calls = 0;
    const auto creator = client_provider_.rpc().stubs().create<EchoService::Stub>(
        request, [&calls](std::optional<EchoService::Stub> stub, const Status&) { calls += stub ? 100 : 1; });
    clock_.RunFor(milliseconds(500));
    if (cancel) creator->Cancel();
    clock_.RunFor(seconds(1));
    EXPECT_EQ(calls, cancel ? 0 : 1);
    network_.Freeze(kEndpoint, false);
    clock_.Settle();
    EXPECT_EQ(calls, cancel ? 0 : 1);
  }
  // Nobody's channel is left: a connection without channels that no manager holds is given up.
  manager_->TeardownConnection(net::Endpoint(kEndpoint));
  clock_.Settle();
  EXPECT_EQ(network_.connections(kEndpoint), 0u);
}

// The result may be on its way to the dispatcher when the owner, who is about to go, cancels.
TEST_F(ConnectionTest, NoCallbackComesBehindACancelOnTheDispatcher) {
  int calls = 0;
  auto& dispatcher = client_provider_.dispatcher();
  dispatcher.Post([&] {
    StubRequest request;
    request.target = net::Endpoint("zem://nobody");
    request.policy = RetryPolicy(1, 1, 1.0, 0);
    const auto creator = client_provider_.rpc().stubs().create<EchoService::Stub>(
        request, [&calls](std::optional<EchoService::Stub>, const Status&) { ++calls; });
    dispatcher.Post([creator] { creator->Cancel(); });  // behind the failure, before what that posts
  });
  clock_.Settle();
  EXPECT_EQ(calls, 0);
}

TEST_F(ConnectionTest, StubsOfOneEndpointShareAConnectionThatGoesWithTheLast) {
  Serve();
  {
    auto one = Stub();
    auto two = Stub();
    EXPECT_EQ(network_.connections(kEndpoint), 1u);
  }
  clock_.Settle();
  EXPECT_EQ(network_.connections(kEndpoint), 0u);
}

// Who only connects must not be able to take all descriptors of the process.
TEST_F(ConnectionTest, AServerClosesConnectionsBeyondItsLimit) {
  ConnectionOptions options;
  options.accepted_limit = 1;
  Serve(options);
  auto first = MakeStub(client_provider_, kEndpoint);
  EXPECT_TRUE(first);
  EXPECT_FALSE(MakeStub(server_provider_, kEndpoint));
  first->Echo(ClientContext(), Text("still served"), Observe("c"));
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ElementsAre("c next store:still served", "c status 0"));
  first.reset();
  EXPECT_TRUE(MakeStub(server_provider_, kEndpoint));
}

TEST_F(ConnectionTest, AStoppedServerClosesItsChannels) {
  Serve();
  auto stub = Stub();
  stub.SetOnStreamDown(
      [this](CloseReason r) { journal_.Add("stream " + std::to_string(static_cast<int>(r))); });
  stub.Echo(ClientContext(), Text("hold"), Observe("c"));
  clock_.Settle();
  server_.reset();
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ElementsAre("c status 53", "stream 3"));
  EXPECT_THAT(server_journal_.Take(), ElementsAre("hold 53"));
  int status = 0;
  EXPECT_FALSE(MakeStub(client_provider_, kEndpoint, &status));
}

// At the provider's stop everything still open ends with its status, and nothing can be started any more.
TEST_F(ConnectionTest, StopEndsCallsThenChannels) {
  Serve();
  Request();
  auto stub = *MakeStub(client_provider_, kEndpoint, nullptr, 100);
  stub.SetOnStreamDown(
      [this](CloseReason r) { journal_.Add("stream " + std::to_string(static_cast<int>(r))); });
  stub.Echo(ClientContext(), Text("hold"), Observe("c"));
  clock_.Settle();
  journal_.Take();
  client_provider_.StopAndWait(true);
  const auto ours = journal_.Take();
  ASSERT_EQ(ours.size(), 3u);
  EXPECT_EQ(ours[0], "c status 53");
  EXPECT_EQ(ours[1], "stream 6");
  EXPECT_THAT(ours[2], ::testing::EndsWith("down LOCAL_CLOSE"));
}

// Without a chance to run on the loop, statuses come at the provider's end: no observer is lost.
TEST_F(ConnectionTest, AStopThatRunsNothingStillTellsEveryObserver) {
  Serve();
  auto provider = std::make_unique<AsioZemProvider>();
  provider->RunAsync(1);
  auto stub = *MakeStub(*provider, kEndpoint, nullptr, 100);
  stub.Echo(ClientContext(), Text("hold"), Observe("c"));
  clock_.Settle();
  provider.reset();
  EXPECT_EQ(journal_.lines().front(), "c status 53");
  stub = EchoService::Stub();  // outlives its provider
}

}  // namespace
}  // namespace zem::rpc
