#include <gmock/gmock.h>

#include "covedbclient/covedb_client.h"
#include "platform/core/virtual_clock.h"
#include "platform/provider/provider.h"
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
