// How an edge stores the manager's messages.

#include "app/zema/covedb/covedb_op_task.h"
#include "proto/config/config.pb.h"
#include "proto/covedb/runtime_objects.pb.h"
#include "proto/switching/switching.pb.h"
#include "tests/app/zema/covedb/store_fixture.h"

namespace zem::zema {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kUuid = "00000000-0000-0001-0000-000000000002";

class EdgeRoadTest : public StoreFixture {
 protected:
  EdgeRoadTest() {
    CoveDbHandler::Settings settings;
    settings.client = client;
    settings.timers = &agent.timers();
    settings.retry_interval = [] { return 30; };
    settings.enqueue = [this](CovedbUpdateKind, covedb::MonitorUpdateMsg, const CovedbOrigin&) { ++updates; };
    handler = std::make_shared<CoveDbHandler>(std::move(settings));
    client->StartAsync();
    clock.RunFor(1s);
  }
  int Save(const std::string& type, const std::string& payload) {
    RawBusMessage message;
    message.type = type;
    message.payload = payload;
    message.header = "H";
    const int result = handler->writer().SaveMessage(&message);
    clock.RunFor(1s);
    return result;
  }

  int updates = 0;
  std::shared_ptr<CoveDbHandler> handler;
};

TEST_F(EdgeRoadTest, TheLastConfigurationIsTheOneThatIsStored) {
  orlane::zem::switching::HostConfigMsg config;
  for (const char* uuid : {"00000000-0000-0009-0000-000000000002", kUuid}) {
    config.set_id(uuid);
    config.set_revision("r");
    auto& host_switch = *config.add_host_switches();
    host_switch.set_default_gateway("not an address");
    RawBusMessage message{"com.orlane.zem.switching.HostConfigMsg", "H", config.SerializeAsString(), "", ""};
    CoveDbOpTask(handler, message).Run();
    config.clear_host_switches();
  }
  clock.RunFor(1s);
  EXPECT_THAT(Stored(ObjectType::HOST_CONFIG),
              ElementsAre(testing::StartsWith("id { first: 1 second: 2 } revision: \"r\" host_switches { } "
                                              "amqp_header { header: \"H\" } write_time: \"")));
  EXPECT_TRUE(
      log.Contains("Successfully written message [com.orlane.zem.switching.HostConfigMsg] to coveDB"));
}

TEST_F(EdgeRoadTest, EachControllerIsAnObject) {
  orlane::zem::config::MpLcpMsg message;
  EXPECT_EQ(Save("com.orlane.zem.config.MpLcpMsg", message.SerializeAsString() + std::string("\x12\0", 2)),
            -1);
  EXPECT_TRUE(log.Contains("Controller count is zero"));
  for (const uint64_t number : {1, 2, 0}) {
    auto& controller = *message.mutable_update()->add_controller();
    if (number != 0) {
      controller.mutable_uuid()->set_first(number);
      controller.mutable_uuid()->set_second(7);
    }
    controller.set_ipv4_address("10.0.0.1");
    controller.mutable_ipv6_group()->set_host_name("c.example");
    controller.set_port(1234);
  }
  EXPECT_EQ(Save("com.orlane.zem.config.MpLcpMsg", message.SerializeAsString()), 0);
  EXPECT_TRUE(log.Contains("Failed to set key for ControllerInfoMsg"));
  const std::string rest = " ipv4_address { ipv4: 167772161 } port: 1234 ipv6_fqdn: \"c.example\"";
  EXPECT_THAT(Stored(ObjectType::CONTROLLER_INFO),
              ElementsAre("uuid { first: 1 second: 7 }" + rest, "uuid { first: 2 second: 7 }" + rest));
}

TEST_F(EdgeRoadTest, AMessageThatCannotBeStoredIsReported) {
  orlane::zem::switching::MaintenanceModeConfigMsg mmode;
  mmode.set_id(kUuid);
  mmode.set_state(0);
  EXPECT_EQ(Save("com.orlane.zem.switching.MaintenanceModeConfigMsg", mmode.SerializeAsString()), 0);
  EXPECT_THAT(Stored(ObjectType::MAINTENANCE_MODE_CONFIG), ElementsAre(HasSubstr("state: 1")));
  struct Row {
    const char* type;
    std::string payload;
    int result;
    const char* line;
  };
  const Row rows[] = {
      {"com.orlane.zem.switching.HostConfigMsg", "", -1,
       "MPA41519] Invalid/Empty payload received of length [0]"},
      {"com.orlane.zem.switching.HostConfigMsg", "\xff", -1,
       "MPA41512] Failed to parse HostConfigMsg message"},
      {"com.orlane.zem.switching.HostConfigMsg", std::string("\x12\x01r", 3), -1,
       "MPA44091] Error Encoding Host Config Message into db format"},
      {"com.orlane.zem.switching.MaintenanceModeConfigMsg", "\xff", -1,
       "MPA41512] Failed to parse maintenance mode config message"},
      {"com.orlane.zem.config.MpLcpMsg", "\xff", -1,
       "ERR_MSG_CONTROLLER_LIST_PARSE_FAIL] Failed to parse ControllerList"},
      {"com.orlane.zem.switching.VifMsg", "x", 0, "Size of Modify Request List is 0"},
  };
  for (const Row& row : rows) {
    log.Clear();
    EXPECT_EQ(Save(row.type, row.payload), row.result) << row.line;
    const std::string line = row.line;
    const size_t bracket = line.find("] ");
    EXPECT_TRUE(log.Contains(bracket == std::string::npos ? line : line.substr(bracket + 2))) << line;
    if (bracket != std::string::npos) {
      EXPECT_TRUE(log.Contains(line.substr(0, bracket))) << line;
    }
  }
  EXPECT_EQ(handler->writer().SaveMessage(nullptr), -1);
  EXPECT_THAT(Stored(ObjectType::HOST_CONFIG), IsEmpty());
}

// Flushed objects must not come back as removals that the host then carries out.
TEST_F(EdgeRoadTest, TheDesiredConfigurationIsFlushedUnwatched) {
  handler->RegisterChannelStatus();
  handler->ConfigureMonitors();
  Change(sim::PutLogicalSwitches({1, 5, 1, 1}, 3, true));
  clock.RunFor(1s);
  updates = 0;
  handler->FlushDesiredConfig();
  clock.RunFor(1s);
  EXPECT_THAT(Stored(ObjectType::OPAQUE_LOG_SWITCH_CONFIG), IsEmpty());
  EXPECT_THAT(Stored(ObjectType::TRANSPORT_NODE_CONFIG), IsEmpty());
  EXPECT_THAT(Stored(ObjectType::BARRIER), ElementsAre("value: 3"));
  EXPECT_EQ(updates, 0);
  EXPECT_TRUE(log.Contains("Successfully Un-monitored objects"));
  handler->ConfigureMonitors();
  Change(sim::PutLogicalSwitches({1, 1, 1, 1}, 4, true));
  clock.RunFor(1s);
  EXPECT_GT(updates, 0) << "and may be watched again";
}

}  // namespace
}  // namespace zem::zema
