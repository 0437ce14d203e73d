// Connection and writes.

#include "platform/core/thread.h"
#include "tests/covedbclient/client_fixture.h"

namespace zem::covedb::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ClientWritesTest : public ClientFixture {};

TEST_F(ClientWritesTest, WritesWaitForAStoreThatIsAway) {
  client->StartAsync();
  std::vector<int> done;
  for (int i = 0; i < 1000; ++i) {
    client->Modify(Requests({Put(std::to_string(i))}), [&done, i] { done.push_back(i); });
  }
  clock.RunFor(9s);
  EXPECT_EQ(Pending(), 1000);
  EXPECT_FALSE(client->IsPendingModificationReqEmpty());
  EXPECT_TRUE(
      log.Contains("CoveDbClient: failed to get stub to tcp://127.0.0.1:2480, retrying in 5000 ms..."));
  StartStore();
  clock.RunFor(10s);
  EXPECT_EQ(Pending(), 0);
  EXPECT_EQ(Calls("Modify"), 1u) << "one batch";
  ASSERT_EQ(done.size(), 1000u);
  EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
}

TEST_F(ClientWritesTest, StartWaitsForTheStoreAndIsForOnce) {
  bool started = false;
  NativeThread starter([&] {
    client->Start();
    started = true;
  });
  clock.RunFor(20s);
  EXPECT_FALSE(started);
  StartStore();
  clock.RunFor(10s);
  EXPECT_TRUE(started);
  starter.Join();
  client->StartAsync();
  client->Start();
  EXPECT_EQ(log.Count("CoveDbClient is already trying to connect (state: CONNECTED)"), 2u);
}

TEST_F(ClientWritesTest, StatesFollowEachOther) {
  Connect();
  LoseConnection();
  std::vector<std::string> changes;
  for (const std::string& text : log.Texts()) {
    if (text.find("changing state") != std::string::npos)
      changes.push_back(text.substr(text.find("state ") + 6));
  }
  const std::vector<std::string> way = {"CONNECTING to REQUEST_OPS_STUB",
                                        "REQUEST_OPS_STUB to REQUEST_DAEMON_HEALTH_STUB",
                                        "REQUEST_DAEMON_HEALTH_STUB to CONNECTED"};
  std::vector<std::string> expected = {"INIT to CONNECTING"};
  expected.insert(expected.end(), way.begin(), way.end());
  expected.insert(expected.end(), {"CONNECTED to DISCONNECTED", "DISCONNECTED to CONNECTING"});
  expected.insert(expected.end(), way.begin(), way.end());
  ASSERT_GE(changes.size(), expected.size());
  changes.erase(changes.begin(), changes.end() - static_cast<long>(expected.size()));
  EXPECT_EQ(changes, expected);
  EXPECT_STREQ(ClientStateName(static_cast<ClientState>(8)), "<INVALID>");
}

TEST_F(ClientWritesTest, WhatQueuesBehindABatchGoesAsOneBatch) {
  Connect();
  daemon->faults().SetDelay("Modify", 1s);
  Modify({Put("a")}, "1");
  clock.RunFor(100ms);
  Modify({Put("b")}, "2");
  Modify({Put("c")}, "3");
  client->Modify(Requests({Put("d")}), nullptr);
  EXPECT_EQ(Pending(), 4);
  clock.RunFor(1s);
  EXPECT_THAT(TakeEvents(), ElementsAre("done 1"));
  clock.RunFor(1s);
  EXPECT_THAT(TakeEvents(), ElementsAre("done 2", "done 3"));
  EXPECT_EQ(Calls("Modify"), 2u);
  EXPECT_EQ(Stored(), "a b c d ");
}

TEST_F(ClientWritesTest, StatusesDecideWhatBecomesOfABatch) {
  Connect();
  uint64_t calls = 0;
  for (const int code : {1, 3, 8, 9, 12, 13, 50}) {
    daemon->faults().SetStatus("Modify", code, 3);
    Modify({Put("a"), Put("b")}, std::to_string(code));
    EXPECT_THAT(Settle(), ElementsAre("done " + std::to_string(code)));
    EXPECT_EQ(Calls("Modify"), calls += 4) << code << ": sent again at once until it succeeds";
    EXPECT_THAT(exits, IsEmpty()) << code;
  }
  EXPECT_TRUE(log.Contains("Changing send status to false"));
  EXPECT_FALSE(log.Contains("NDB100"));
}

TEST_F(ClientWritesTest, RefusalsForGoodEndTheProcess) {
  Connect();
  size_t count = 0;
  for (const int code : {2, 5, 6, 7}) {
    log.Clear();
    daemon->faults().SetStatus("Modify", code, 1);
    Modify({Put("a")});
    EXPECT_THAT(Settle(), IsEmpty()) << code;
    ASSERT_EQ(exits.size(), ++count) << code;
    EXPECT_EQ(exits.back(), 1);
    EXPECT_TRUE(log.Contains("NDB100")) << code;
    EXPECT_TRUE(
        log.Contains("Server reported error due to invalid client request, unrecoverable on client!"));
    EXPECT_EQ(Calls("Modify"), 2 * count - 1) << code << ": not sent again";
    client->Modify({}, nullptr);  // a process that does not end goes on with it
    Settle();
  }
}

// The status that a lost channel gives: sending at once would spin on a dead channel.
TEST_F(ClientWritesTest, ALostChannelsBatchWaitsForTheNextOccasion) {
  Connect();
  daemon->faults().SetStatus("Modify", 53, 1);
  Modify({Put("a")}, "1");
  clock.RunFor(1min);
  EXPECT_THAT(TakeEvents(), IsEmpty());
  EXPECT_EQ(Calls("Modify"), 1u);
  Modify({Put("b")}, "2");
  EXPECT_THAT(Settle(), ElementsAre("done 1", "done 2"));
  EXPECT_EQ(Calls("Modify"), 2u);
}

TEST_F(ClientWritesTest, AnEmptyBatchThatIsRefusedIsGivenUp) {
  Connect();
  daemon->faults().SetStatus("Modify", 1, 1);
  client->Modify({}, nullptr);
  Settle();
  EXPECT_TRUE(log.Contains("Modify request is empty. Server returned an error status"));
  EXPECT_EQ(Pending(), 0);
}

TEST_F(ClientWritesTest, ABatchOutlivesItsConnectionAndItsStore) {
  Connect();
  daemon->faults().SetDelay("Modify", 3s);
  Modify({Put("a")}, "1");
  clock.RunFor(100ms);
  network.Break(kEndpoint);
  Modify({Put("b")}, "2");
  clock.RunFor(20s);
  EXPECT_THAT(TakeEvents(), ElementsAre("done 1", "done 2"));
  EXPECT_EQ(Stored(), "a b ");

  Modify({Put("c")}, "3");
  clock.RunFor(100ms);
  daemon.reset();
  clock.RunFor(1min);
  EXPECT_THAT(TakeEvents(), IsEmpty());
  EXPECT_EQ(Pending(), 1);
  StartStore();
  clock.RunFor(10s);
  EXPECT_THAT(TakeEvents(), ElementsAre("done 3"));
  EXPECT_EQ(Stored(), "c ") << "a new store has only what was still waiting";
}

TEST_F(ClientWritesTest, DeletingAVDbTakesItsWaitingWritesAlong) {
  Connect();
  uint32_t vdb = 0;
  ASSERT_TRUE(client->CreateVDb("x", [&](uint32_t id, const Status&) { vdb = id; }));
  clock.RunFor(100ms);
  ASSERT_EQ(vdb, 2u);
  daemon->faults().SetDelay("Modify", 1s);
  Modify({Put("sent", {2})}, "sent");
  clock.RunFor(100ms);
  Modify({Put("only", {2})}, "only");
  Modify({Put("both", {1, 2})}, "both");
  daemon->faults().SetDelay("DeleteVDb", 2s);
  std::optional<int> deleted;
  ASSERT_TRUE(client->DeleteVDb(
      "x", [&](const Status& status) { deleted = status.code(); }, 2));
  EXPECT_EQ(Pending(), 2);
  clock.RunFor(5s);
  EXPECT_EQ(deleted, 0);
  EXPECT_THAT(TakeEvents(), ElementsAre("done sent", "done both"));
  EXPECT_EQ(Stored(), "both ");
  EXPECT_THAT(exits, IsEmpty());
}

TEST_F(ClientWritesTest, CallbacksMayUseTheClient) {
  StartStore();
  client->AddChannelStatusCallback([this](bool up) {
    if (up) client->Modify(Requests({Put("by status")}), [this] { Modify({Put("by done")}, "inner"); });
  });
  client->StartAsync();
  EXPECT_THAT(Settle(), testing::Contains("done inner"));
  EXPECT_EQ(Stored(), "by done by status ");
}

TEST_F(ClientWritesTest, TheLastHolderMayLeaveAtAnyTime) {
  Connect();
  daemon->faults().SetDelay("Modify", 1s);
  Modify({Put("a")}, "1");
  clock.RunFor(100ms);
  client.reset();
  clock.RunFor(5s);
  EXPECT_THAT(TakeEvents(), IsEmpty());
  EXPECT_TRUE(log.Contains("CoveDbClient is already destroyed"));

  client = std::make_shared<CoveDbClient>("second", "tcp://127.0.0.1:1", agent, nullptr, true, true, false);
  client->StartAsync();
  clock.RunFor(1s);
  client.reset();
  clock.RunFor(20s);
  EXPECT_TRUE(log.Contains("ignoring callback, client is already destroyed"));
}

}  // namespace
}  // namespace zem::covedb::test
