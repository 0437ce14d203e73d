// Monitors against the store: sessions, replays, the ends of streams.

#include "tests/covedbclient/client_fixture.h"

namespace zem::covedb::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ClientMonitorsTest : public ClientFixture {
 protected:
  void WatchType(uint32_t module, uint16_t vdb = 1) {
    Register(module, vdb);
    ASSERT_TRUE(client->ConfigureMonitor({Watch(kType)}, {}, module, vdb));
  }
};

TEST_F(ClientMonitorsTest, UpdatesAndBarriersReachTheModules) {
  WatchType(4);  // before there is a session or a store
  Connect();
  EXPECT_THAT(Settle(), IsEmpty()) << "the first mark closes nothing";
  PutAtStore("a");
  EXPECT_THAT(Settle(), ElementsAre("4:7a", "4|"));
  WatchType(9);
  EXPECT_EQ(Calls("ConfigureMonitor"), 0u) << "the statement was there";
  Modify({Put("b"), Delete("a")}, "write");
  EXPECT_THAT(Settle(),
              testing::UnorderedElementsAre("4:7b", "9:7b", "4:8a", "9:8a", "4|", "9|", "done write"))
      << "own writes come back";
  ASSERT_TRUE(client->ConfigureMonitor({}, {Watch(kType)}, 4, 1));
  PutAtStore("c");
  EXPECT_THAT(Settle(), ElementsAre("9:7c", "9|"));
  ASSERT_TRUE(client->ConfigureMonitor({}, {Watch(kType)}, 9, 1));
  clock.RunFor(1s);
  EXPECT_EQ(Calls("ConfigureMonitor"), 1u);
  EXPECT_THAT(daemon->store().streams().List()[0].types, IsEmpty());
}

TEST_F(ClientMonitorsTest, ATypeAddedToARunningStreamIsReplayed) {
  Connect();
  PutAtStore("a");
  WatchType(4);
  EXPECT_THAT(Settle(), ElementsAre("4:7a", "4|"));
  EXPECT_TRUE(log.Contains("Object types and ids currently monitored by CoveDB: monitored"));
  ASSERT_TRUE(client->UpdateMonitor({UpdateOf(kType, {Where("id", proto::WhereMsg::EQUAL, "z")}, {})}, 1));
  clock.RunFor(1s);
  PutAtStore("b");
  PutAtStore("z");
  EXPECT_THAT(Settle(), ElementsAre("4:7z", "4|"));
  EXPECT_FALSE(client->UpdateMonitor({UpdateOf(kType, {}, {Where("id", proto::WhereMsg::EQUAL, "b")})}, 1));
  clock.RunFor(1s);
  EXPECT_EQ(Calls("ConfigureMonitor"), 2u);
}

// Monitors live again before the modules hear that the channel is up, and before what waited is written.
TEST_F(ClientMonitorsTest, AReconnectReplaysUnderTheSameId) {
  WatchType(4);
  WatchStatus();
  Connect();
  PutAtStore("a");
  Settle();
  const std::string id = MonitorId();
  network.Break(kEndpoint);
  network.SetAway(kEndpoint, true);
  clock.RunFor(1s);
  Modify({Put("b")}, "b");
  EXPECT_THAT(TakeEvents(), ElementsAre("down"));
  network.SetAway(kEndpoint, false);
  clock.RunFor(20s);
  EXPECT_THAT(TakeEvents(), ElementsAre("up", "4:7a", "4|", "4:7b", "4|", "done b"));
  EXPECT_EQ(MonitorId(), id);
}

TEST_F(ClientMonitorsTest, TheEndOfAStreamDecidesWhatFollows) {
  WatchType(4);
  WatchStatus();
  Connect();
  PutAtStore("a");
  Settle();
  const auto end = [this](int code) {
    daemon->store().streams().End("", Status(code));
    clock.RunFor(1s);
    return TakeEvents();
  };
  std::string id = MonitorId();
  EXPECT_THAT(end(2), ElementsAre("4:7a", "4|"));
  EXPECT_NE(MonitorId(), id);
  id = MonitorId();
  EXPECT_THAT(end(12), ElementsAre("down", "up", "4:7a", "4|"));
  EXPECT_NE(MonitorId(), id);
  EXPECT_THAT(end(1), IsEmpty());
  EXPECT_EQ(MonitorId(), "0 streams");
  LoseConnection();
  EXPECT_THAT(TakeEvents(), ElementsAre("down", "up", "4:7a", "4|"));
  EXPECT_THAT(end(9), IsEmpty());
  LoseConnection();
  EXPECT_THAT(TakeEvents(), ElementsAre("down", "up")) << "what was entered for the vdb is forgotten";
  EXPECT_FALSE(client->ConfigureMonitor({}, {Watch(kType)}, 4, 1));
}

TEST_F(ClientMonitorsTest, AnIdThatSomebodyElseHoldsIsReplaced) {
  WatchType(4);
  StartStore();
  daemon->faults().SetStatus("Monitor", 2, 2);
  PutAtStore("a");
  client->StartAsync();
  EXPECT_THAT(Settle(), ElementsAre("4:7a", "4|"));
  EXPECT_EQ(Calls("Monitor"), 3u);
}

// A statement that the store cannot serve is refused under every id; asking at once each time would be a busy
// loop.
TEST_F(ClientMonitorsTest, AMonitorThatIsRefusedAgainAndAgainIsTriedSlowly) {
  WatchType(4);
  StartStore();
  daemon->faults().SetStatus("Monitor", 2, -1);
  PutAtStore("a");
  client->StartAsync();
  clock.RunFor(10min);
  EXPECT_GE(Calls("Monitor"), 12u);
  EXPECT_LE(Calls("Monitor"), 20u);
  const uint64_t before = Calls("Monitor");
  LoseConnection();
  EXPECT_EQ(Calls("Monitor"), before + 6) << "a new connection asks afresh";
  daemon->faults().SetStatus("Monitor", 0, 0);
  clock.RunFor(1min);
  EXPECT_THAT(TakeEvents(), ElementsAre("4:7a", "4|"));
  clock.RunFor(10min);
  EXPECT_THAT(TakeEvents(), IsEmpty()) << "and stays";
}

TEST_F(ClientMonitorsTest, AVDbIsWatchedUntilItIsDeleted) {
  Connect();
  uint32_t vdb = 0;
  ASSERT_TRUE(client->CreateVDb("x", [&](uint32_t id, const Status&) { vdb = id; }));
  clock.RunFor(1s);
  ASSERT_EQ(vdb, 2u);
  EXPECT_FALSE(client->RegisterMonitorCallback(6, nullptr, nullptr, 2));
  EXPECT_TRUE(client->AddMonitorSession(2));
  EXPECT_FALSE(client->AddMonitorSession(2));
  WatchType(6, 2);
  PutAtStore("one");
  PutAtStore("two", {2});
  EXPECT_THAT(Settle(), ElementsAre("6:7two", "6|"));
  EXPECT_EQ(daemon->store().streams().List().size(), 2u);
  ASSERT_TRUE(client->DeleteVDb("x", nullptr, 2));
  clock.RunFor(1s);
  EXPECT_FALSE(client->RemoveMonitorSession(2)) << "the end of its stream removed it";
  EXPECT_EQ(daemon->store().streams().List().size(), 1u);
}

TEST_F(ClientMonitorsTest, UpdatesOfARemovedSessionGoNowhere) {
  WatchType(4);
  Connect();
  EXPECT_TRUE(client->RemoveMonitorSession(1));
  PutAtStore("a");
  EXPECT_THAT(Settle(), IsEmpty());
}

// The store goes on with the stream of a session that was removed; made anew, the session has its own.
TEST_F(ClientMonitorsTest, AStreamOfARemovedSessionIsNotTheNewOnes) {
  WatchType(4);
  Connect();
  ASSERT_TRUE(client->RemoveMonitorSession(1));
  ASSERT_TRUE(client->AddMonitorSession(1));
  WatchType(4);
  Settle();
  EXPECT_EQ(daemon->store().streams().List().size(), 2u);
  PutAtStore("a");
  EXPECT_THAT(Settle(), ElementsAre("4:7a", "4|"));
}

TEST_F(ClientMonitorsTest, GarbageReachesTheModuleAsItCame) {
  WatchType(4);
  Connect();
  daemon->store().streams().SetGarbage(1);
  PutAtStore("a");
  PutAtStore("b");
  EXPECT_THAT(Settle(), ElementsAre("4:7garbage", "4|", "4:7b", "4|"));
}

TEST_F(ClientMonitorsTest, AModuleMayStepInFromItsCallback) {
  ASSERT_TRUE(client->RegisterMonitorCallback(
      5,
      [this](const proto::MonitorUpdateMsg&) {
        EXPECT_TRUE(client->ConfigureMonitor({}, {Watch(kType)}, 5, 1));
        Modify({Put("answer")}, "answer");
      },
      nullptr, 1));
  ASSERT_TRUE(client->ConfigureMonitor({Watch(kType)}, {}, 5, 1));
  WatchType(6);
  Connect();
  PutAtStore("a");
  EXPECT_THAT(Settle(), ElementsAre("6:7a", "6|", "6:7answer", "6|", "done answer"));
}

class ClientWithoutMonitorsTest : public ClientFixture {
 protected:
  ClientWithoutMonitorsTest() : ClientFixture(false) {}
};

TEST_F(ClientWithoutMonitorsTest, MonitorsStartWhenTheyAreEnabled) {
  EXPECT_FALSE(client->EnableMonitorSessionCreation()) << "the store is away";
  Register(4);
  EXPECT_TRUE(client->ConfigureMonitor({Watch(kType)}, {}, 4, 1));
  Connect();
  PutAtStore("a");
  EXPECT_THAT(Settle(), IsEmpty());
  EXPECT_EQ(MonitorId(), "0 streams");
  EXPECT_TRUE(client->EnableMonitorSessionCreation());
  EXPECT_THAT(Settle(), ElementsAre("4:7a", "4|"));
  const std::string id = MonitorId();
  EXPECT_TRUE(client->EnableMonitorSessionCreation());
  EXPECT_THAT(Settle(), ElementsAre("4:7a", "4|")) << "once more is a replay on the stream's successor";
  EXPECT_EQ(MonitorId(), id);
}

}  // namespace
}  // namespace zem::covedb::test
