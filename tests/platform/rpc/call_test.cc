#include <atomic>

#include "tests/platform/rpc/rpc_fixture.h"

namespace zem::rpc {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Throws in `Next` or in `RemoteStatus`.
class ThrowingObserver final : public CallObserver<EchoMsg> {
 public:
  ThrowingObserver(Journal& journal, bool in_next) : journal_(journal), in_next_(in_next) {}

  void Next(const EchoMsg&) override {
    if (in_next_) throw std::runtime_error("in Next");
  }
  void RemoteStatus(const Status&) override { throw std::runtime_error("in RemoteStatus"); }
  void CallStatus(const Status& status) override {
    journal_.Add("status " + std::to_string(status.code()));
    delete this;
  }

 private:
  Journal& journal_;
  const bool in_next_;
};

// Each way a server can end a unary call has to reach the observer as one status, after the answer if there
// is one.
TEST_F(RpcTest, EveryEndOfAUnaryCallIsOneStatus) {
  Serve();
  auto stub = Stub();
  struct Case {
    const char* text;
    std::vector<std::string> expected;
  };
  for (const Case& c :
       {Case{"hello", {"c next store:hello", "c status 0"}}, Case{"", {"c next store:", "c status 0"}},
        Case{"fail", {"c status 7"}}, Case{"throw", {"c status 14"}},
        Case{"who", {"c next me at tcp://127.0.0.1:2480", "c status 0"}}}) {
    stub.Echo(ClientContext("me"), Text(c.text), Observe("c", [this](const Status&) {
                EXPECT_TRUE(client_provider_.RunsOnThisThread()) << "never in the caller's stack";
              }));
    clock_.Settle();
    EXPECT_EQ(journal_.Take(), c.expected) << c.text;
  }
}

// An observer that throws would otherwise never hear of the end, and whoever waits for it hangs.
TEST_F(RpcTest, AnObserverThatThrowsHasItsStatusAllTheSame) {
  Serve();
  auto stub = Stub();
  for (const bool in_next : {true, false}) {
    stub.Echo(ClientContext(), Text("a"), new ThrowingObserver(journal_, in_next));
    clock_.Settle();
    EXPECT_THAT(journal_.Take(), ElementsAre("status 0")) << in_next;
  }
}

TEST_F(RpcTest, SourceAndHeadersTravelWithTheCall) {
  Serve();
  auto stub = Stub();
  ClientContext context("another");
  context.AddHeader("tracking", "7");
  stub.Echo(context, Text("who"), Observe("c"));
  clock_.Settle();
  EXPECT_THAT(journal_.Take(),
              ElementsAre("c next another at tcp://127.0.0.1:2480 tracking=7", "c status 0"));
}

TEST_F(RpcTest, StreamsArriveInOrderThenTheirStatus) {
  Serve();
  auto stub = Stub();
  stub.Count(ClientContext(), Text("", 3), Observe("c"));
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ElementsAre("c next 0", "c next 1", "c next 2", "c status 0"));

  auto talk = stub.Talk(ClientContext(), Observe("t"));
  EXPECT_TRUE(talk.WriteRequest(Text("one")));
  EXPECT_TRUE(talk.WriteRequest(Text("two")));
  EXPECT_TRUE(talk.FinishRequests());
  EXPECT_FALSE(talk.WriteRequest(Text("three"))) << "requests were finished";
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ElementsAre("t next one", "t next two", "t status 0"));
  EXPECT_THAT(server_journal_.Take(), ElementsAre("count 0", "talk end 0"));
}

// Whichever message of a stream the handler throws at, the caller is told.
TEST_F(RpcTest, AStreamWhoseHandlerThrowsEndsWithAStatus) {
  Serve();
  auto stub = Stub();
  auto talk = stub.Talk(ClientContext(), Observe("t"));
  talk.WriteRequest(Text("one"));
  clock_.Settle();
  talk.WriteRequest(Text("throw"));
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ElementsAre("t next one", "t status 14"));
  EXPECT_THAT(server_journal_.Take(), ElementsAre("talk end 14"));
}

TEST_F(RpcTest, ABatchSendsEveryRequestOnce) {
  Serve();
  auto stub = Stub();
  for (const size_t size : {0, 1, 2, 20000}) {
    auto requests = std::make_shared<std::list<EchoMsg>>();
    for (size_t i = 0; i < size; ++i) requests->emplace_back().set_payload(std::string(300, 'x'));
    client::AsyncBatchCall(stub.channel(), EchoService::Stub::rpcmethod_Sum, ClientContext(), requests,
                           new JournalObserver<SumMsg>(journal_, "b"));
    clock_.Settle();
    EXPECT_THAT(journal_.Take(), ElementsAre("b next " + std::to_string(size), "b status 0"));
  }
}

// Cancelled, the call ends with 3 on both sides, and only once although the answer may be under way.
TEST_F(RpcTest, CancelEndsTheCallOnBothSides) {
  Serve();
  auto stub = Stub();
  auto handle = stub.Echo(ClientContext(), Text("hold"), Observe("c"));
  clock_.Settle();
  auto held = echo_->TakeHeld();
  ASSERT_EQ(held.size(), 1u);
  network_.Freeze(kEndpoint, true);
  held[0].Finish(Text("late"));
  handle.Cancel();
  handle.Cancel();
  network_.Freeze(kEndpoint, false);
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ElementsAre("c status 3"));
  EXPECT_THAT(server_journal_.Take(), ElementsAre("hold 0"));

  auto second = stub.Echo(ClientContext(), Text("hold"), Observe("d"));
  clock_.Settle();
  second.Cancel();
  EXPECT_EQ(second.FinalStatus()->code(), 3);
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ElementsAre("d status 3"));
  EXPECT_THAT(server_journal_.Take(), ElementsAre("hold 3"));
  EXPECT_FALSE(echo_->TakeHeld()[0].Finish(Text("late"))) << "the call has ended";
}

TEST_F(RpcTest, ADroppedClientHandleCancelsNothing) {
  Serve();
  auto stub = Stub();
  { const auto dropped = stub.Echo(ClientContext(), Text("hold"), Observe("c")); }
  clock_.Settle();
  echo_->TakeHeld()[0].Finish(Text("answer"));
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ElementsAre("c next answer", "c status 0"));
}

TEST_F(RpcTest, ADroppedServerHandleSendsNothingAndTheDeadlineEndsTheCall) {
  Serve();
  auto stub = Stub();
  ClientContext context;
  context.set_timeout(seconds(5));
  stub.Echo(context, Text("drop"), Observe("c"));
  clock_.RunFor(milliseconds(4999));
  EXPECT_THAT(journal_.Take(), IsEmpty());
  EXPECT_THAT(server_journal_.Take(), ElementsAre("drop 3"));
  clock_.RunFor(milliseconds(2));
  EXPECT_THAT(journal_.Take(), ElementsAre("c status 4"));
}

// Many deadlines in mixed order, some calls answered before: each of the others ends at its own time.
TEST_F(RpcTest, DeadlinesEndCallsInTheirOrderOnBothSides) {
  Serve();
  auto stub = Stub();
  for (const int s : {7, 2, 9, 4}) {
    ClientContext context;
    context.set_timeout(seconds(s));
    stub.Echo(context, Text("hold"), Observe(std::to_string(s)));
  }
  clock_.RunFor(seconds(3));
  EXPECT_THAT(journal_.Take(), ElementsAre("2 status 4"));
  auto held = echo_->TakeHeld();
  ASSERT_EQ(held.size(), 4u);
  EXPECT_FALSE(held[1].Finish(Text("late")));
  EXPECT_TRUE(held[2].Finish(Text("nine")));
  clock_.RunFor(seconds(2));
  EXPECT_THAT(journal_.Take(), ElementsAre("9 next nine", "9 status 0", "4 status 4"));
  clock_.RunFor(seconds(10));
  EXPECT_THAT(journal_.Take(), ElementsAre("7 status 4"));
  EXPECT_THAT(server_journal_.Take(), ElementsAre("hold 4", "hold 0", "hold 4", "hold 4"));
}

TEST_F(RpcTest, AnObserverMayStartCallsAndDropItsStubInItsStatus) {
  Serve();
  auto stub = std::make_unique<EchoService::Stub>(Stub());
  stub->Echo(ClientContext(), Text("a"), Observe("a", [&](const Status&) {
               stub->Echo(ClientContext(), Text("hold"), Observe("b"));
               stub.reset();
             }));
  clock_.Settle();
  EXPECT_THAT(journal_.lines(), Contains("b status 53"));
}

// Somebody who answers every failure with a new call must not hold the strand for ever.
TEST_F(RpcTest, CallsOnADeadChannelFailLaterAndOneByOne) {
  Serve();
  auto stub = Stub();
  network_.Break(kEndpoint);
  clock_.Settle();
  std::atomic<int> left = 1000;
  std::function<void(const Status&)> again = [&](const Status& status) {
    EXPECT_EQ(status.code(), 53);
    if (--left > 0) stub.Echo(ClientContext(), Text("x"), Observe("x", again));
  };
  stub.Echo(ClientContext(), Text("x"), Observe("x", again));
  clock_.Settle();
  EXPECT_EQ(left, 0);
}

// A reader that does not read: writes are refused at the limit, and the writer hears when there is room
// again.
TEST_F(RpcTest, ASlowReaderStopsTheWriter) {
  Serve();
  auto stub = Stub();
  stub.Count(ClientContext(), Text("hold"), Observe("c"));
  clock_.Settle();
  auto call = echo_->TakeHeld()[0];
  network_.Freeze(kEndpoint, true);
  EchoMsg big;
  big.set_payload(std::string(1 << 20, 'x'));
  int written = 0;
  while (written < 100 && call.Write(big)) ++written;
  EXPECT_GE(written, 16);
  EXPECT_LE(written, 18);
  network_.Freeze(kEndpoint, false);
  clock_.Settle();
  EXPECT_TRUE(call.Write(big));
  call.Close(Status(StatusCode::kResyncRequired));
  clock_.Settle();
  EXPECT_EQ(journal_.lines().size(), static_cast<size_t>(written) + 2);
  EXPECT_EQ(journal_.lines().back(), "c status 12");
}

// The hook of a writer holds the call's handle as a rule: it must not keep the ended call for ever.
TEST_F(RpcTest, AnEndedCallLetsGoOfItsWritableHook) {
  Serve();
  auto stub = Stub();
  for (const char* text : {"keep", "keep after the end"}) {
    stub.Echo(ClientContext(), Text(text), Observe("c"));
    clock_.Settle();
    EXPECT_THAT(journal_.Take(), ElementsAre("c next kept", "c status 0"));
    EXPECT_TRUE(echo_->kept_by_hook().expired()) << text;
  }
}

// Final answers have no limit of their own, so a peer that takes none is given up when too much waits for it.
TEST_F(RpcTest, APeerThatTakesNoAnswersIsGivenUp) {
  Serve();
  auto stub = Stub();
  constexpr int kCalls = 9;
  for (int i = 0; i < kCalls; ++i) stub.Echo(ClientContext(), Text("hold"), Observe("c"));
  clock_.Settle();
  network_.Freeze(kEndpoint, true);
  EchoMsg answer;
  answer.set_payload(std::string(15 << 20, 'x'));
  for (auto& call : echo_->TakeHeld()) call.Finish(answer);
  clock_.Settle();
  network_.Freeze(kEndpoint, false);
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ::testing::Each("c status 53"));
}

TEST_F(RpcTest, AMessageOverTheFrameLimitIsRefused) {
  Serve();
  auto stub = Stub();
  EchoMsg huge;
  huge.set_payload(std::string(65 << 20, 'x'));
  stub.Echo(ClientContext(), huge, Observe("c"));
  EchoMsg large;
  large.set_payload(std::string(63 << 20, 'x'));
  stub.Echo(ClientContext(), large, Observe("d"));
  clock_.Settle();
  EXPECT_THAT(journal_.Take(), ElementsAre("c status 11", "d next store:", "d status 0"));
  ClientContext context;
  context.AddHeader("tracking", std::string(64 << 10, 'x'));
  stub.Echo(context, Text("e"), Observe("e"));
  stub.Echo(ClientContext(), Text("f"), Observe("f"));
  clock_.Settle();
  EXPECT_THAT(journal_.Take(),
              ::testing::UnorderedElementsAre("e status 11", "f next store:f", "f status 0"));
}

}  // namespace
}  // namespace zem::rpc
