#include "tests/app/zema/vif/vif_host_test.h"

namespace zem::zema {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class VifPortHandlerTest : public VifHostTest {};

TEST_F(VifPortHandlerTest, KindsWithoutWorkTouchNothing) {
  for (const int32_t kind :
       {VifRequest::kAttachLiveMove, VifRequest::kDetachLiveMove, VifRequest::kUnsupported, 77}) {
    EXPECT_EQ(Done(FromHost(Request(kind))).error_text, "") << kind;
  }
  EXPECT_TRUE(log.Contains("ignore opCode: [ATTACH_PORT_LIVEMOVE:9]"));
  EXPECT_THAT(road.asked, IsEmpty());
}

TEST_F(VifPortHandlerTest, OneOperationAtATimeOnAVif) {
  // The first waits for a manager that is silent.
  VifRequest first = Request(VifRequest::kAttach);
  Server running(handler, first);
  running.Start();
  clock.Settle();
  EXPECT_EQ(Done(Request(VifRequest::kSyncAttach)).error_text, "Concurrent operation on vif, cannot proceed");
  road.script.push_back(Port("lp-1"));
  VifRequest second = Request(VifRequest::kAttach);
  EXPECT_EQ(Done(second).error_text, "");
  running.Join();
  EXPECT_EQ(first.error_text, ZemManager::kTimedOut);
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kVif);
  EXPECT_TRUE(log.Contains("vif:[vif-1] Sleep waiting for previous operation to complete"));

  // And not for ever; the operation that goes on keeps the VIF.
  VifRequest blocking = Request(VifRequest::kAttach);
  Server slow(handler, blocking);
  road.hold = seconds(40);
  slow.Start();
  clock.Settle();
  const TimePoint begin = clock.Now();
  EXPECT_EQ(Done(Request(VifRequest::kAttach)).error_text, "Concurrent operation on vif, cannot proceed");
  EXPECT_EQ(clock.Now() - begin, seconds(30));
  EXPECT_EQ(Done(Request(VifRequest::kSyncDetach)).error_text, "Concurrent operation on vif, cannot proceed");
  slow.Join();
}

// Whichever thread comes first: what arrived first is carried out first, and one that gives up holds nobody.
TEST_F(VifPortHandlerTest, OperationsOnAVifKeepTheOrderOfTheirArrival) {
  std::vector<VifRequest> requests;
  for (const int32_t kind : {VifRequest::kAttach, VifRequest::kDetach, VifRequest::kAttach}) {
    requests.push_back(Request(kind));
    handler.Arrived(requests.back());
  }
  VifRequest other = Request(VifRequest::kDetach, "vif-2");
  handler.Arrived(other);
  EXPECT_EQ(Done(Request(VifRequest::kSyncAttach)).error_text, "Concurrent operation on vif, cannot proceed");
  for (int i = 0; i < 4; ++i) road.script.push_back(Port("lp-1"));
  std::list<Server> servers;
  for (auto request = requests.rbegin(); request != requests.rend(); ++request) {
    servers.emplace_back(handler, *request).Start();
    clock.Settle();
  }
  Do(other);
  for (Server& server : servers) server.Join();
  ASSERT_THAT(road.asked, SizeIs(4));
  EXPECT_TRUE(road.asked[0].attach);
  EXPECT_FALSE(road.asked[1].attach);
  EXPECT_TRUE(road.asked[2].attach);
  EXPECT_EQ(road.asked[3].vif_id, "vif-2");

  // Refused before its turn, or dropped without being served.
  health.setZemaLumNotReady();
  VifRequest refused = Request(VifRequest::kDetach);
  handler.Arrived(refused);
  Do(refused);
  health.setZemaLumReady();
  {
    VifRequest dropped = Request(VifRequest::kDetach);
    handler.Arrived(dropped);
  }
  road.script.push_back(Port("lp-1"));
  EXPECT_EQ(Done(Request(VifRequest::kSyncAttach)).error_text, "");
}

// A request that is served again waits in a new place; one that nobody serves may outlive the handler.
TEST_F(VifPortHandlerTest, APlaceIsGoodForOneTry) {
  VifRequest request = Request(VifRequest::kAttach);
  handler.Arrived(request);
  VifRequest ahead = request;
  for (int i = 0; i < 2; ++i) road.script.push_back(Port("lp-1"));
  Do(request);
  EXPECT_EQ(request.turn, nullptr);
  Do(request);
  EXPECT_EQ(request.error_text, "");
  EXPECT_THAT(road.asked, SizeIs(2));

  VifRequest late = Request(VifRequest::kDetach);
  {
    VifPortHandler gone{nullptr, around};
    gone.Arrived(late);
  }
  late.turn->Leave();
  late.turn.reset();
  EXPECT_EQ(Done(ahead).error_text, "Concurrent operation on vif, cannot proceed");
}

TEST_F(VifPortHandlerTest, MoveOfInterfacesMakesItsPortsItself) {
  MigrationRecord::Scope move(migration, MigrationRecord::Kind::kToLogicalSwitch);
  VifRequest request = Request(VifRequest::kAttachToVifUuid);
  request.op_id = move.op_id();
  EXPECT_EQ(Done(FromHost(request)).result_text, kVif);
  EXPECT_THAT(road.asked, IsEmpty());
  request.op_code = VifRequest::kDetach;
  EXPECT_EQ(Done(FromHost(request)).result_text, "");
  EXPECT_THAT(road.asked, IsEmpty());
  EXPECT_THAT(move.TakeLeft(), ElementsAre(kVif)) << "the move has to take it off";
  // Nobody else's.
  Done(request);
  request.op_id = "another";
  Done(FromHost(request));
  EXPECT_THAT(road.asked, SizeIs(2));
}

TEST_F(VifPortHandlerTest, RoundOfTheResyncLearnsOfTheHostsOperations) {
  road.script.push_back(Port("lp-1"));
  Done(FromHost(Request(VifRequest::kAttach)));
  resync.Begin();
  EXPECT_EQ(resync.Noted(kLs, kVif), std::nullopt);
  Done(FromHost(Request(VifRequest::kDetach)));
  Done(Request(VifRequest::kSyncAttach, "vif-2"));
  EXPECT_EQ(resync.Noted(kLs, kVif), "detach");
  EXPECT_EQ(resync.Noted(kLs, "vif-2"), std::nullopt);
  resync.End();

  // One that ends in a round which began after it.
  VifRequest request = FromHost(Request(VifRequest::kAttach));
  Server running(handler, request);
  running.Start();
  clock.Settle();
  resync.Begin();
  running.Join();
  EXPECT_EQ(resync.Noted(kLs, kVif), "attach");
}

TEST_F(VifPortHandlerTest, EndIsNotWaitedFor) {
  VifRequest request = Request(VifRequest::kAttach);
  VifRequest behind = Request(VifRequest::kAttach);
  Server running(handler, request);
  Server waiting(handler, behind);
  running.Start();
  clock.Settle();
  waiting.Start();
  clock.Settle();
  const TimePoint begin = clock.Now();
  handler.EndWaits();
  running.Join();
  waiting.Join();
  EXPECT_EQ(clock.Now(), begin);
  EXPECT_EQ(request.error_text, ZemManager::kTimedOut);
  EXPECT_EQ(behind.error_text, "Concurrent operation on vif, cannot proceed");
  EXPECT_EQ(Done(Request(VifRequest::kAttach, "vif-9")).error_text,
            "Concurrent operation on vif, cannot proceed");
}

}  // namespace
}  // namespace zem::zema
