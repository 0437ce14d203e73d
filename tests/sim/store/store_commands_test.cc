#include <gmock/gmock.h>

#include "covedbclient/covedb_client.h"
#include "platform/core/provider.h"
#include "platform/core/virtual_clock.h"
#include "platform/rpc/memory_network.h"
#include "sim/control/command_table.h"
#include "sim/store/store_daemon.h"

namespace zem::sim {
namespace {

class StoreCommandsTest : public testing::Test {
 protected:
  StoreCommandsTest() { RegisterStoreCommands(table, daemon, registry); }
  std::string Run(const std::string& line) {
    std::string answer;
    table.Execute(line, Reply([&answer](Json json) { answer = JsonText(json.get()); }));
    return answer;
  }

  VirtualClock clock;
  rpc::MemoryNetwork network;
  AsioZemProvider provider;
  const ObjectRegistry registry;
  StoreDaemon daemon{provider, "tcp://127.0.0.1:2480", registry};
  CommandTable table;
};

TEST_F(StoreCommandsTest, EachCommandDoesWhatItSaysOrTellsWhyNot) {
  const std::pair<const char*, const char*> session[] = {
      {R"(put SCENARIO_OBJECT id: "a b" number: 1)", R"({"ok":true})"},
      {R"(patch 221 id: "a b" text: "t")", R"({"ok":true})"},
      {"put RULE hex:0102", R"({"ok":true})"},
      {"get SCENARIO_OBJECT",
       R"({"ok":true,"result":[{"type":221,"name":"SCENARIO_OBJECT","object":"id: \"a b\" text: \"t\" number: 1"}]})"},
      {"get SCENARIO_OBJECT id: 'never'", R"({"ok":true,"result":[]})"},
      {"query SCENARIO_OBJECT number LESS 1", R"({"ok":true,"result":[]})"},
      {"vdb/create second", R"({"ok":true,"result":{"vdb":2}})"},
      {"copy SCENARIO_OBJECT 2", R"({"ok":true})"},
      {"flush SCENARIO_OBJECT", R"({"ok":true})"},
      {"list", R"({"ok":true,"result":[{"vdb":1,"type":29,"name":"RULE","objects":1},)"
               R"({"vdb":2,"type":221,"name":"SCENARIO_OBJECT","objects":1}]})"},
      {"query SCENARIO_OBJECT@2 id PREFIX a",
       R"({"ok":true,"result":[{"type":221,"name":"SCENARIO_OBJECT","object":"id: \"a b\" text: \"t\" number: 1"}]})"},
      {R"(delete SCENARIO_OBJECT@2 id: "a b")", R"({"ok":true})"},
      {"vdb/list", R"({"ok":true,"result":[{"vdb":1,"name":"default"},{"vdb":2,"name":"second"}]})"},
      {"vdb/delete second", R"({"ok":true})"},
      {"modify modify_msg { flush_msg { object_type: RULE } }", R"({"ok":true})"},
      {"list", R"({"ok":true,"result":[]})"},
      {"monitors", R"({"ok":true,"result":[]})"},
      {"barrier", R"({"ok":true,"result":{"streams":0}})"},
      {"schema 3.0.0 TN_DESIRED_CONFIG_1",
       R"({"ok":true,"result":{"version":"3.0.0","schema":"enum ObjectType {\n  OBJECT_TYPE_NONE = 0;\n)"
       R"(  TN_DESIRED_CONFIG_1 = 1;\n}\n"}})"},
      {"put RULE hex:00", R"({"ok":false,"error":"UNKNOWN_TYPE (5): the schema has no type 29"})"},
      {"put NONSENSE hex:00", R"({"ok":false,"error":"no object type \"NONSENSE\""})"},
      {"put SCENARIO_OBJECT@0 id: 'a'", R"({"ok":false,"error":"\"0\" is no number from 1 to 65535"})"},
      {"put SCENARIO_OBJECT id: a",
       R"({"ok":false,"error":"the object does not read: line 1, column 5: Expected string, got: a"})"},
      {"modify modify_msg 5",
       R"({"ok":false,"error":"no ModifyRequestMsg: line 1, column 12: Expected \"{\", found \"5\"."})"},
      {"vdb/delete second", R"({"ok":false,"error":"NOT_FOUND (7): no vdb \"second\""})"},
      {"fault/status Modify 5 2", R"({"ok":true})"},
      {"fault/status Nothing 5", R"({"ok":false,"error":"the store has no call \"Nothing\""})"},
      {"fault/status Modify five", R"({"ok":false,"error":"\"five\" is no number from 0 to 65535"})"},
      {"fault/delay Get 100", R"({"ok":true})"},
      {"fault/garbage Modify", R"({"ok":false,"error":"only Get, Query and Monitor carry objects"})"},
      {"fault/freeze maybe", R"({"ok":false,"error":"on or off"})"},
      {"fault/end 12", R"({"ok":true,"result":{"streams":0}})"},
      {"fault/listen off", R"({"ok":true})"},
      {"fault/clear", R"({"ok":true})"},
  };
  for (const auto& [line, answer] : session) EXPECT_EQ(Run(line), answer) << line;
  EXPECT_TRUE(daemon.faults().PassAtOnce("Modify")) << "no fault is left";
}

// A store that is away stays away, and a person sees what was asked of it, not only how often.
TEST_F(StoreCommandsTest, DroppingConnectionsDoesNotBringAStoreBackThatIsAway) {
  AsioZemProvider agent;
  agent.RunAsync(1);
  provider.RunAsync(1);
  const auto client = std::make_shared<covedb::CoveDbClient>("agent", "tcp://127.0.0.1:2480", agent, nullptr,
                                                             true, true, false);
  bool up = false;
  client->AddChannelStatusCallback([&](bool now) { up = now; });
  client->StartAsync();
  clock.RunFor(std::chrono::seconds(5));
  ASSERT_TRUE(up);
  Run("calls/keep 2");
  for (const char* type : {"RULE", "SCENARIO_OBJECT", "BARRIER"}) {
    orlane::zem::covedb::ModifyRequestMsg request;
    orlane::zem::covedb::ObjectType number{};
    ASSERT_TRUE(orlane::zem::covedb::ObjectType_Parse(type, &number));
    request.add_modify_msg()->mutable_flush_msg()->set_object_type(number);
    client->Modify({request}, [] {});
    clock.RunFor(std::chrono::seconds(1));
  }
  EXPECT_EQ(Run("calls Modify"),
            R"({"ok":true,"result":["modify_msg { flush_msg { object_type: SCENARIO_OBJECT } }",)"
            R"("modify_msg { flush_msg { object_type: BARRIER } }"]})");
  Run("fault/listen off");
  Run("fault/drop");
  clock.RunFor(std::chrono::minutes(1));
  EXPECT_FALSE(up);
  Run("fault/listen on");
  clock.RunFor(std::chrono::minutes(1));
  EXPECT_TRUE(up);
  agent.StopAndWait(true);
  provider.StopAndWait(true);
}

}  // namespace
}  // namespace zem::sim
