// Calls of one answer, and the schema check.

#include "tests/covedbclient/client_fixture.h"

namespace zem::covedb::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ClientReadsTest : public ClientFixture {
 protected:
  ObjectsCallback Collect() {
    return [this](const std::list<proto::TypedObjectMsg>& objects, const Status& status) {
      std::string text = std::to_string(status.code());
      for (const auto& object : objects) {
        proto::ScenarioObjectMsg message;
        text += message.ParseFromString(object.object()) ? " " + message.id() : " garbage";
      }
      events.push_back(text);
    };
  }
  static std::list<proto::ObjectRequestMsg> Wanted(std::initializer_list<const char*> ids) {
    std::list<proto::ObjectRequestMsg> list;
    for (const char* id : ids) {
      list.emplace_back().set_object_type(kType);
      if (*id != 0) list.back().set_object(Object(id));
    }
    return list;
  }
};

TEST_F(ClientReadsTest, NothingIsAskedOfAStoreThatIsAway) {
  const auto never = [](auto&&...) { ADD_FAILURE(); };
  client->StartAsync();
  clock.RunFor(20s);
  EXPECT_FALSE(client->Get(Wanted({""}), never, 0));
  EXPECT_FALSE(client->Query(Watch(kType).statement(), never, 0));
  EXPECT_FALSE(client->CreateVDb("x", never));
  EXPECT_FALSE(client->DeleteVDb("x", never, 0));
  EXPECT_FALSE(client->GetVDbId("", never));
  EXPECT_FALSE(client->Echo("x", never));
  EXPECT_FALSE(client->GetServerSchema(never));
  EXPECT_FALSE(client->GetServerSchemaVersion(never));
  clock.RunFor(20s);
}

TEST_F(ClientReadsTest, ReadsGiveObjectsAndStatus) {
  Connect();
  PutAtStore("a");
  PutAtStore("b");
  ASSERT_TRUE(client->Get(Wanted({"b", "never", ""}), Collect(), 0));
  ASSERT_TRUE(client->Get(Wanted({""}), Collect(), 1));
  ASSERT_TRUE(client->Get(Wanted({""}), Collect(), 7));
  ASSERT_TRUE(
      client->Query(Watch(kType, {Where("id", proto::WhereMsg::GREATER, "a")}).statement(), Collect(), 1));
  EXPECT_THAT(Settle(), ElementsAre("0 b a b", "0 a b", "7", "0 b"));
  EXPECT_TRUE(log.Contains("Received Get response"));

  daemon->faults().SetStatus("Get", 1, 1);
  daemon->faults().SetGarbage("Query", 1);
  ASSERT_TRUE(client->Get(Wanted({""}), Collect(), 1));
  ASSERT_TRUE(client->Query(Watch(kType).statement(), Collect(), 1));
  EXPECT_THAT(Settle(), ElementsAre("1", "0 garbage garbage"));
  EXPECT_EQ(Calls("Get"), 4u) << "a failed read is not tried again";

  daemon->faults().SetFrozen(true);
  ASSERT_TRUE(client->Get(Wanted({""}), Collect(), 1));
  clock.RunFor(1s);
  network.Break(kEndpoint);
  EXPECT_THAT(Settle(), ElementsAre("53"));
}

TEST_F(ClientReadsTest, VDbAndHealthCalls) {
  Connect();
  const auto show = [this](const std::string& text, const Status& status) {
    events.push_back(text + " " + std::to_string(status.code()));
  };
  const auto show_list = [show](const std::list<proto::VDbMsg>& list, const Status& status) {
    std::string text;
    for (const auto& vdb : list) text += vdb.name() + std::to_string(vdb.vdb_id());
    show(text, status);
  };
  ASSERT_TRUE(client->CreateVDb("x", [show](uint32_t id, const Status& s) { show(std::to_string(id), s); }));
  ASSERT_TRUE(client->CreateVDb("x", [show](uint32_t id, const Status& s) { show(std::to_string(id), s); }));
  ASSERT_TRUE(client->GetVDbId("", show_list));
  ASSERT_TRUE(client->GetVDbId("x", show_list));
  ASSERT_TRUE(client->DeleteVDb(
      "y", [show](const Status& s) { show("", s); }, 0));
  ASSERT_TRUE(client->Echo("hello", show));
  EXPECT_THAT(Settle(), testing::UnorderedElementsAre("2 0", "0 8", "default1x2 0", "x2 0", " 7", "hello 0"));
}

TEST_F(ClientReadsTest, SchemaCallsGoOneAtATime) {
  Connect();
  daemon->faults().SetDelay("GetSchema", 1s);
  daemon->faults().SetDelay("GetSchemaVersion", 1s);
  const auto schema = [this](const std::string& text, const std::string& version, const Status& status) {
    events.push_back(text.substr(0, 17) + version + " " + std::to_string(status.code()));
  };
  const auto version = [this](const std::string& text, const Status&) { events.push_back(text); };
  EXPECT_TRUE(client->GetServerSchema(schema));
  EXPECT_TRUE(client->GetServerSchemaVersion(version));
  EXPECT_FALSE(client->GetServerSchema(schema));
  EXPECT_FALSE(client->GetServerSchemaVersion(version));
  EXPECT_TRUE(log.Contains("Response is still pending from the previous call toGetServerSchema"));
  EXPECT_TRUE(log.Contains("Response is still pending from the previous call to GetServerSchemaVersion"));
  clock.RunFor(2s);
  EXPECT_THAT(TakeEvents(), testing::UnorderedElementsAre("enum ObjectType {3.2.1 0", "3.2.1"));
  EXPECT_TRUE(client->GetServerSchema(schema));
  clock.RunFor(100ms);
  LoseConnection();
  TakeEvents();
  EXPECT_TRUE(client->GetServerSchema(schema))
      << "a call that was lost with its connection is not waited for";
}

class SchemaCheckTest : public ClientFixture {
 protected:
  SchemaCheckTest() : ClientFixture(true, true) {
    Register(3);
    EXPECT_TRUE(client->ConfigureMonitor(MonitorStatementsFor({kType, ObjectType::RULE}), {}, 3, 1));
    WatchStatus();
    EXPECT_THAT(TakeEvents(), ElementsAre("down"));
  }
  std::vector<ObjectType> Watched() {
    const auto streams = daemon->store().streams().List();
    return streams.size() == 1 ? streams[0].types : std::vector<ObjectType>();
  }
};

TEST_F(SchemaCheckTest, UnknownTypesAreNeitherWrittenNorWatched) {
  StartStore();
  daemon->store().SetSchema("3.2.1", ObjectType::GI_SOLUTION_INFO);
  client->Modify(Requests({Put("new"), Put("old", {}, ObjectType::GLOBAL_CONFIG)}),
                 [this] { events.push_back("done both"); });
  client->StartAsync();
  EXPECT_THAT(Settle(), ElementsAre("up", "done both"));
  EXPECT_THAT(Watched(), ElementsAre(ObjectType::RULE));
  EXPECT_EQ(Stored(), "");
  EXPECT_EQ(Stored(ObjectType::GLOBAL_CONFIG), "old ");
  EXPECT_THAT(exits, IsEmpty());

  Modify({Put("new")}, "never");
  EXPECT_THAT(Settle(), IsEmpty()) << "a batch that is dropped whole is not told as done";
  EXPECT_EQ(Pending(), 0);
  EXPECT_EQ(Calls("Modify"), 1u);
}

TEST_F(SchemaCheckTest, AStoreThatIsTooOldIsToldToTheWriter) {
  StartStore();
  daemon->store().SetSchema("3.1.0", ObjectType::SCENARIO_OBJECT);
  client->SetVersionConstraint(kType, "3.2", [this](ObjectType) { events.push_back("too old"); });
  client->SetVersionConstraint(kType, "0", nullptr);
  EXPECT_TRUE(log.Contains("Object type SCENARIO_OBJECT already inserted to version constraint map"));
  client->StartAsync();
  Settle();
  Modify({Put("new")}, "never");
  EXPECT_THAT(Settle(), ElementsAre("too old"));
}

// Without answers an old store is assumed; only then, and once, does work begin.
TEST_F(SchemaCheckTest, SilenceEndsAtTheTimeout) {
  client->SetVersionResponseTimeout(40);
  StartStore();
  daemon->faults().SetDelay("GetSchema", 1h);
  daemon->faults().SetDelay("GetSchemaVersion", 1h);
  Modify({Put("new"), Put("old", {}, ObjectType::GLOBAL_CONFIG)}, "both");
  client->StartAsync();
  clock.RunFor(39s);
  EXPECT_THAT(TakeEvents(), IsEmpty());
  clock.RunFor(2s);
  EXPECT_THAT(TakeEvents(), ElementsAre("up", "done both"));
  EXPECT_TRUE(log.Contains("Timeout on GetServerSchema request"));
  EXPECT_TRUE(log.Contains("Timeout on server schema version request"));
  EXPECT_TRUE(log.Contains("Found 178 objects in server schema"));
  EXPECT_EQ(Stored(), "");
  EXPECT_THAT(Watched(), ElementsAre(ObjectType::RULE));
  clock.RunFor(2h);
  EXPECT_THAT(TakeEvents(), IsEmpty()) << "late answers begin nothing again";
}

TEST_F(SchemaCheckTest, EachConnectionChecksAnewAndOnce) {
  StartStore();
  daemon->store().SetSchema("3.2.0", ObjectType::IP_REPUTATION_RECORD_EVENT);
  client->StartAsync();
  EXPECT_THAT(Settle(), ElementsAre("up")) << "both answers came, and the work began once";
  EXPECT_THAT(Watched(), ElementsAre(ObjectType::RULE, kType));
  LoseConnection();
  EXPECT_THAT(TakeEvents(), ElementsAre("down", "up"));
  EXPECT_EQ(Calls("GetSchema"), 2u);
}

// The version alone does not help here, so the client has to go on waiting for the schema.
TEST_F(SchemaCheckTest, ALateSchemaIsStillAnAnswer) {
  StartStore();
  daemon->faults().SetDelay("GetSchema", 10min);
  client->StartAsync();
  clock.RunFor(9min);
  EXPECT_TRUE(log.Contains("Timeout on GetServerSchema request"));
  EXPECT_THAT(TakeEvents(), IsEmpty());
  clock.RunFor(2min);
  EXPECT_THAT(TakeEvents(), ElementsAre("up"));
}

TEST_F(SchemaCheckTest, AFailedCallIsNoAnswer) {
  StartStore();
  daemon->faults().SetStatus("GetSchema", 1, 1);
  daemon->store().SetSchema("3.1.3", ObjectType::IP_REPUTATION_RECORD_EVENT);
  Modify({Put("new"), Put("old", {}, ObjectType::GLOBAL_CONFIG)}, "both");
  client->StartAsync();
  EXPECT_THAT(Settle(), ElementsAre("up", "done both"));
  EXPECT_EQ(Stored(ObjectType::GLOBAL_CONFIG), "old ") << "the version's count holds, 188";
  EXPECT_EQ(Stored(), "");
}

}  // namespace
}  // namespace zem::covedb::test
