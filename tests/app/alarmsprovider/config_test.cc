#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "app/alarmsprovider/config/covedb_event_handler.h"
#include "app/alarmsprovider/config/event_customizations.h"
#include "proto/covedb/monitoring_objects.pb.h"
#include "tests/covedbclient/client_fixture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using namespace std::chrono_literals;
using covedb::test::ObjectType;
using testing::HasSubstr;
using testing::Not;
namespace store = orlane::zem::covedb;

/// The handler against a real store, with its files in a directory of the test.
class ConfigTest : public covedb::test::ClientFixture {
 protected:
  ConfigTest() {
    ::signal(SIGPIPE, SIG_IGN);  // as in the daemon
    WriteScript("cat >> " + folder.Path("journal") + "; echo >> " + folder.Path("journal"));
    Connect();
    handler = MakeHandler();
    handler->Start();
    clock.RunFor(100ms);
  }
  ~ConfigTest() override { handler->Stop(); }

  std::shared_ptr<CovedbEventHandler> MakeHandler() {
    return std::make_shared<CovedbEventHandler>(
        CovedbEventHandler::Settings{client,
                                     PollingConfigCache::kHost,
                                     {folder.Path("events.json"), {folder.Path("script"), Override()}}},
        [this](const PollingTable& table, bool enabled) {
          pushed = enabled ? "on" : "off";
          for (const auto& [name, interval] : table) pushed += " " + name + "=" + std::to_string(interval);
          ++pushes;
        });
  }
  std::string Override() const { return folder.Path("override"); }
  void WriteScript(const std::string& body) {
    folder.Write("script", "#!/bin/sh\n" + body + "\n");
    ::chmod(folder.Path("script").c_str(), 0755);
  }

  void PutObject(ObjectType type, const google::protobuf::Message& object, bool removed = false) {
    store::ModifyMsg change;
    if (removed) {
      change.mutable_delete_msg()->set_object_type(type);
      change.mutable_delete_msg()->set_object(object.SerializeAsString());
    } else {
      change.mutable_put_msg()->set_object_type(type);
      change.mutable_put_msg()->set_object(object.SerializeAsString());
    }
    store::ModifyRequestMsg request;
    *request.add_modify_msg() = change;
    ASSERT_TRUE(daemon->store().Modify({request}).ok());
    clock.RunFor(100ms);
  }
  void PutEvent(const std::string& name, bool removed = false) {
    store::EventConfigMsg event;
    event.set_name(name);
    event.set_threshold(5);
    PutObject(ObjectType::EVENT_CONFIG, event, removed);
  }
  void PutDefault(const std::string& name, const std::string& client_type, uint32_t first, uint32_t second,
                  const std::string& response = "") {
    store::DataCollectionConfigMsg config;
    config.set_feature_stack_name(name);
    config.set_client_type(client_type);
    config.set_first_interval(first);
    config.set_second_interval(second);
    config.set_response_type(response);
    PutObject(ObjectType::DATA_COLLECTION_CONFIG, config);
  }
  void PutCentral(const std::string& text) {
    store::GlobalConfigMsg config;
    config.set_central_config(text);
    PutObject(ObjectType::GLOBAL_CONFIG, config);
  }
  std::string Customizations() const { return folder.Read("events.json"); }
  std::string Journal() const { return folder.Read("journal"); }

  zem::test::TempDir folder;
  std::shared_ptr<CovedbEventHandler> handler;
  std::string pushed;
  int pushes = 0;
};

// The alarm libraries find their events by name: a name that splits at a character, or an old threshold
// beside the new one, changes the wrong event.
TEST_F(ConfigTest, CustomizationsAreOneKeyEach) {
  store::EventConfigMsg event;
  event.set_name("a.b|c");
  event.set_suppress_alarm(true);
  event.set_sampling_interval(60);
  event.set_threshold(5);
  event.set_threshold_floating_point(0.5F);
  PutObject(ObjectType::EVENT_CONFIG, event);
  EXPECT_EQ(
      Customizations(),
      "{\n    \"a.b|c\": {\n        \"is_disabled\": \"false\",\n        \"sampling_interval\": \"60\",\n"
      "        \"sensitivity\": \"0\",\n        \"suppress_alarm\": \"true\",\n"
      "        \"suppress_snmp_trap\": \"false\",\n        \"threshold\": \"5\"\n    }\n}\n");
  EXPECT_TRUE(log.Contains("ConfigSyncManager: threshold and threshold_floating_point both are configured"));
  event.clear_threshold();
  PutObject(ObjectType::EVENT_CONFIG, event);
  EXPECT_THAT(Customizations(), HasSubstr("\"threshold_floating_point\": \"0.5\""));
  EXPECT_THAT(Customizations(), Not(HasSubstr("\"threshold\"")));
  event.clear_threshold_floating_point();
  PutObject(ObjectType::EVENT_CONFIG, event);
  EXPECT_THAT(Customizations(), HasSubstr("\"threshold\": \"0\""));
  EXPECT_TRUE(
      log.Contains("ConfigSyncManager: threshold and threshold_floating_point both are not configured"));
  PutObject(ObjectType::EVENT_CONFIG, event, true);
  EXPECT_EQ(Customizations(), "{\n}\n");
}

// A customization that was deleted while the store was away must not live on in the file.
TEST_F(ConfigTest, AReconnectionLeavesWhatTheStoreHas) {
  PutEvent("kept");
  PutEvent("gone");
  network.Break(covedb::test::kEndpoint);
  PutEvent("gone", true);
  LoseConnection();
  EXPECT_THAT(Customizations(), AllOf(HasSubstr("kept"), Not(HasSubstr("gone"))));

  network.Break(covedb::test::kEndpoint);
  PutEvent("kept", true);
  LoseConnection();
  EXPECT_THAT(Customizations(), HasSubstr("kept")) << "an empty store says nothing";
  clock.RunFor(60s);
  EXPECT_EQ(Customizations(), "{\n}\n");
}

// A store that dies as soon as it is back has not said that there are no customizations.
TEST_F(ConfigTest, AStoreThatGoesAgainLeavesTheFile) {
  const auto sync = std::make_shared<ConfigSyncManager>(
      ConfigSyncManager::Paths{folder.Path("own.json"), {folder.Path("script"), Override()}});
  sync->Start();
  store::EventConfigMsg event;
  event.set_name("kept");
  sync->Update(event);
  ASSERT_TRUE(sync->Write());
  sync->Clear();
  sync->StoreGone();
  clock.RunFor(90s);
  EXPECT_THAT(folder.Read("own.json"), HasSubstr("kept"));
  sync->Clear();
  clock.RunFor(60s);
  EXPECT_EQ(folder.Read("own.json"), "{\n}\n");
  sync->Stop();
}

// A disk that is full or a folder that is missing must leave the old file whole.
TEST_F(ConfigTest, AFailedWriteLeavesTheFile) {
  PutEvent("first");
  const std::string before = Customizations();
  std::filesystem::create_directory(folder.Path("events.tmp"));
  std::ofstream(folder.Path("events.tmp") + "/in-the-way").flush();
  PutEvent("second");
  EXPECT_EQ(Customizations(), before);
  EXPECT_TRUE(log.Contains("Failed to parse json config "));
  EXPECT_TRUE(log.Contains("Error when serializing event customizations: "));
  std::filesystem::remove_all(folder.Path("events.tmp"));
  PutEvent("third");
  EXPECT_THAT(Customizations(), AllOf(HasSubstr("second"), HasSubstr("third")));
}

// A status source that collects at another node's pace, or at a default that an operator has overruled.
TEST_F(ConfigTest, PollingFollowsTheNodesKindAndTheOperator) {
  PutDefault("arp", "cvn-edge", 10, 0);
  EXPECT_EQ(pushes, 0);
  EXPECT_TRUE(log.Contains("PollingConfigCache:: Ignoring as client_type cvn-edge not supported"));
  PutDefault("arp", "cvn-hv", 0, 45);
  EXPECT_EQ(pushed, "on arp=45");
  PutDefault("arp", "cvn-hv", 50, 0);
  PutDefault("sum", "cvn-hv", 50, 0, "com.orlane.zem.management.agg.messaging.SummationStatsResponseMsg");
  EXPECT_EQ(pushed, "on arp=45") << "a default does not replace one, and sums are not collected";

  store::UserDefinedFeatureStackCollectionConfigurationMsg user;
  user.set_feature_stack_name("arp");
  auto* const edge = user.add_client_configuration();
  edge->set_client_type(4);
  edge->add_interval()->set_kind(1);
  auto* const host = user.add_client_configuration();
  host->set_client_type(1);
  for (const auto& [kind, interval] : {std::pair{1, 20}, {1, 30}, {2, 40}, {1, 50}}) {
    auto* const each = host->add_interval();
    each->set_kind(static_cast<uint32_t>(kind));
    each->set_interval(static_cast<uint32_t>(interval));
  }
  PutObject(ObjectType::USER_DEFINED_FEATURE_STACK_COLLECTION_CONFIGURATION, user);
  EXPECT_EQ(pushed, "on arp=30") << "the first entry of another kind ends the list";

  store::GlobalCollectionConfigurationMsg global;
  global.set_is_collection_enabled(false);
  PutObject(ObjectType::GLOBAL_COLLECTION_CONFIGURATION, global);
  EXPECT_EQ(pushed, "off arp=30");
  const int before = pushes;
  LoseConnection();
  EXPECT_EQ(pushes, before) << "a replay that changes nothing";
}

// A new store client of a process that starts again: many objects, one message to the status source.
TEST_F(ConfigTest, AReplayIsPushedOnce) {
  for (int i = 0; i < 20; ++i) PutDefault("stack" + std::to_string(i), "cvn-hv", 10, 0);
  EXPECT_EQ(pushes, 20);
  handler->Stop();
  ASSERT_TRUE(client->ConfigureMonitor({}, {covedb::MonitorStatementFor(ObjectType::DATA_COLLECTION_CONFIG)},
                                       5, covedb::kDefaultVDb));
  client->RemoveMonitorSession(covedb::kDefaultVDb);
  ASSERT_TRUE(client->AddMonitorSession(covedb::kDefaultVDb));
  pushes = 0;
  handler = MakeHandler();
  handler->Start();
  clock.RunFor(1s);
  EXPECT_EQ(pushes, 1);
  EXPECT_THAT(pushed, HasSubstr("stack19=10"));
}

// The node's script has to get each text once, unless the operator's own configuration is in force.
TEST_F(ConfigTest, TheScriptRunsOncePerTextUnlessOverridden) {
  PutCentral("one");
  EXPECT_EQ(Journal(), "one\n");
  std::ofstream(Override()).flush();
  PutCentral("two");
  EXPECT_TRUE(log.Contains("Local config override present, skipping central config update"));
  clock.RunFor(60s);
  EXPECT_EQ(Journal(), "one\n");
  std::filesystem::remove(Override());
  clock.RunFor(30s);
  EXPECT_EQ(Journal(), "one\ntwo\n");
  clock.RunFor(60s);
  EXPECT_EQ(Journal(), "one\ntwo\n");
  PutCentral("");
  EXPECT_EQ(Journal(), "one\ntwo\n") << "there is nothing to give";

  WriteScript("exit 3");
  PutCentral("three");
  EXPECT_TRUE(log.Contains("Failed to call central config update script: exit code 3"));
  std::filesystem::remove(folder.Path("script"));
  PutCentral("four");
  EXPECT_EQ(log.Count("Failed to call central config update script: "), 2U);
}

// A script may take minutes, and what waits behind it may be out of date when its turn comes.
TEST_F(ConfigTest, ATextThatWaitedIsGivenOnlyIfItStillHolds) {
  WriteScript("cat >> " + folder.Path("journal") + "\nwhile [ ! -e " + folder.Path("go") + " ]; do :; done");
  const auto sync = std::make_shared<ConfigSyncManager>(
      ConfigSyncManager::Paths{folder.Path("own.json"), {folder.Path("script"), Override()}});
  sync->Start();
  sync->SetCentralConfig("one ");
  while (!std::ifstream(folder.Path("journal")) || Journal().empty()) std::this_thread::yield();
  sync->SetCentralConfig("two ");
  folder.Write("override", "");
  folder.Write("go", "");
  clock.RunFor(60s);
  EXPECT_EQ(Journal(), "one ") << "the override came first";
  std::filesystem::remove(Override());
  clock.RunFor(60s);
  EXPECT_EQ(Journal(), "one two ");
  sync->Stop();
}

}  // namespace
}  // namespace zem::Tarvik
