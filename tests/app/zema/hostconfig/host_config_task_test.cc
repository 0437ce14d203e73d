// Host configurations from their message to the host and back; the agent may end at any point in between.

#include "app/zema/hostconfig/router_reconnection.h"
#include "app/zema/migration_files/vnic_migration_task.h"
#include "app/zema/ports/vif_request.h"
#include "tests/app/zema/hostconfig/host_config_fixture.h"

namespace zem::zema {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

TEST_F(HostConfigTest, SwitchesComeAndGo) {
  EXPECT_THAT(Apply(kNode + std::string("revision: \"1\" ") + kTwo), HasSubstr("error_code: 0"));
  EXPECT_EQ(RouterOf(kOverlay), "connected");
  EXPECT_THAT(Apply(kNode + std::string("revision: \"2\" ") + kOne), HasSubstr("error_code: 0"));
  EXPECT_THAT(state->SwitchIds(), ElementsAre(kVlanSwitch));
  EXPECT_EQ(RouterOf(kOverlay), "none");
  EXPECT_FALSE(files.apply_mark().Unfinished());
}

// The node's file is removed before its switches are, so the mark has to say that a removal was under way.
TEST_F(HostConfigTest, ARemovalThatWasCutIsFinishedByTheNextStart) {
  for (const bool reset : {false, true}) {
    for (const char* point : {"op 11", "CheckQUBiVersion70AndUnusedCkln", "applyDvsList(", "op 15"}) {
      SCOPED_TRACE(std::string(point) + (reset ? " reset" : " removal"));
      StartProcess();
      ASSERT_THAT(Apply(kNode + std::string("revision: \"1\" ") + kTwo), HasSubstr("error_code: 0"));
      KillAt(point);
      const auto remove = [&] {
        reset ? RemoveHostSwitches(process->context) : Apply(R"(id: "c1" revision: "-1")");
      };
      EXPECT_THROW(remove(), Killed);
      ASSERT_TRUE(files.apply_mark().Unfinished());
      StartProcess();
      FinishHostConfig(process->context);
      EXPECT_THAT(state->SwitchIds(), IsEmpty());
      EXPECT_EQ(RouterOf(kOverlay), "none");
      EXPECT_FALSE(files.HasHostConfigFile());
      EXPECT_FALSE(files.apply_mark().Unfinished());
      EXPECT_FALSE(process->host.id());
      EXPECT_TRUE(script.Heard("15:")) << "the host forgets its node id";
    }
  }
}

// The tool that requested the migration waits for the outcome, whichever process writes it.
TEST_F(HostConfigTest, AnInterruptedMigrationByFileGetsItsOutcome) {
  ASSERT_THAT(Apply(kNode + std::string("revision: \"1\" ") + kTwo), HasSubstr("error_code: 0"));
  VnicMigrationTask::Settings settings;
  settings.knl_file = dir.Write("knl", R"({"request_id": "k1", "migrate_to_ndvs": true, "host_switches": [
      {"host_switch_name": "ks-2", "pnics": [{"device_name": "knlnic1", "uplink_name": "u1"}]}]})");
  settings.result_file = dir.Path("result");
  std::string mark;
  script.before = [&](const std::string& asked) {
    if (asked.starts_with("migrateToLS")) mark = dir.Read("host_config.bin.applying");
  };
  const std::string stored = dir.Read("host_config.bin");
  VnicMigrationTask(process->context, settings, false, true).Run();
  EXPECT_THAT(dir.Read("result"), HasSubstr("\"result\": \"Success\""));

  // The state that a kill leaves between the mark and the stored configuration.
  ASSERT_NE(mark, "");
  dir.Write("host_config.bin.applying", mark);
  dir.Write("host_config.bin", stored);
  script.commands.clear();
  dir.Write("result", "");
  StartProcess();
  FinishHostConfig(process->context);
  EXPECT_TRUE(script.Heard("migrateToLS"));
  EXPECT_THAT(dir.Read("result"), HasSubstr("\"request_id\": \"k1\""));
  EXPECT_THAT(dir.Read("result"), HasSubstr("\"result\": \"Success\""));
  EXPECT_FALSE(files.apply_mark().Unfinished());
}

// When the agent starts again, no stored message contains the switch that leaves.
TEST_F(HostConfigTest, ALeavingRouterIsRemovedEvenAfterAKill) {
  ASSERT_THAT(Apply(kNode + std::string("revision: \"1\" ") + kTwo), HasSubstr("error_code: 0"));
  KillAt("CheckQUBiVersion70AndUnusedCkln");
  EXPECT_THROW(Apply(kNode + std::string("revision: \"2\" ") + kOne), Killed);
  StartProcess();
  FinishHostConfig(process->context);
  EXPECT_EQ(RouterOf(kOverlay), "none");
  EXPECT_THAT(state->SwitchIds(), ElementsAre(kVlanSwitch));
}

// No answer reports the failure, so the agent retries by itself and does not report the configuration as
// applied.
TEST_F(HostConfigTest, AConfigurationThatAStartCannotFinishIsRetriedUntilItSucceeds) {
  KillAt("applyDvses(");
  EXPECT_THROW(Apply(kNode + std::string("revision: \"1\" ") + kTwo), Killed);
  StartProcess();
  script.Script("CheckQUBiVersion70AndUnusedCkln()", {"busy"});
  FinishHostConfig(process->context);
  EXPECT_TRUE(files.apply_mark().not_in_force());
  ASSERT_TRUE(files.apply_mark().Unfinished());
  EXPECT_EQ(process->follow_ups.later_after, 30s);
  for (const auto next : {60s, 120s, 240s, 480s, 600s, 600s}) {
    std::exchange(process->follow_ups.later, nullptr)();
    EXPECT_EQ(process->follow_ups.later_after, next);
  }
  // An exception is a failure like any other.
  script.before = [](const std::string&) { throw std::runtime_error("bad alloc"); };
  std::exchange(process->follow_ups.later, nullptr)();
  ASSERT_TRUE(process->follow_ups.later);
  EXPECT_TRUE(files.apply_mark().not_in_force());
  script.before = nullptr;
  script.Script("CheckQUBiVersion70AndUnusedCkln()", {"ok|1,0"});
  const auto last = std::exchange(process->follow_ups.later, nullptr);
  last();
  EXPECT_FALSE(files.apply_mark().not_in_force());
  EXPECT_FALSE(files.apply_mark().Unfinished());
  EXPECT_FALSE(process->follow_ups.later);
  EXPECT_EQ(RouterOf(kOverlay), "connected");
  script.commands.clear();
  last();
  EXPECT_THAT(script.commands, IsEmpty()) << "it holds already";
}

TEST_F(HostConfigTest, ANewerConfigurationEndsTheTriesToFinishTheOneBefore) {
  KillAt("applyDvses(");
  EXPECT_THROW(Apply(kNode + std::string("revision: \"1\" ") + kTwo), Killed);
  StartProcess();
  script.Script("CheckQUBiVersion70AndUnusedCkln()", {"busy"});
  FinishHostConfig(process->context);
  ASSERT_TRUE(process->follow_ups.later);
  EXPECT_THAT(Apply(kNode + std::string("revision: \"2\" ") + kOne), HasSubstr("busy"));
  EXPECT_FALSE(files.apply_mark().not_in_force()) << "this failure the manager knows";
  script.commands.clear();
  process->follow_ups.later();
  EXPECT_THAT(script.commands, IsEmpty());
}

// After a reset the host accepts no logical switches until it is a transport node again.
TEST_F(HostConfigTest, AConfigurationAfterAResetTakesLogicalSwitchesAgain) {
  ASSERT_THAT(Apply(kNode + std::string("revision: \"1\" ") + kTwo), HasSubstr("error_code: 0"));
  EXPECT_EQ(RemoveHostSwitches(process->context), "");
  EXPECT_TRUE(process->state.del_zem_running);
  Apply(kNode + std::string("revision: \"2\" ") + kTwo);
  EXPECT_FALSE(process->state.del_zem_running);
}

TEST_F(HostConfigTest, ARemovalEndsTheMaintenanceModeOfTheNode) {
  ASSERT_THAT(Apply(kNode + std::string("revision: \"1\" ") + kTwo), HasSubstr("error_code: 0"));
  EXPECT_EQ(process->follow_ups.left_maintenance, 0);
  Apply(R"(id: "c1" revision: "-1")");
  EXPECT_EQ(process->follow_ups.left_maintenance, 1);
}

// There is no answer, so the task does not wait for the host management; the follow-ups run all the same.
TEST_F(HostConfigTest, AConfigurationFinishedAtTheStartHasItsFollowUpsAndNoWait) {
  KillAt("applyDvses(");
  EXPECT_THROW(Apply(kNode + std::string("revision: \"1\" ") + kTwo), Killed);
  StartProcess();
  script.unused_ckln = true;
  FinishHostConfig(process->context);
  EXPECT_FALSE(files.apply_mark().Unfinished());
  EXPECT_THAT(process->follow_ups.notes, ElementsAre("hot swap"));
}

// A configuration that is refused before it is stored leaves no state behind: the next one is a first
// configuration again, and is checked as such.
TEST_F(HostConfigTest, ARefusedFirstConfigurationLeavesNothingBehind) {
  for (const char* dvs : {kOverlay, kVlanSwitch}) ASSERT_TRUE(state->RemoveSwitch(dvs));
  const struct {
    const char* reason;
    std::function<void()> prepare;
    std::string switches;
  } cases[] = {
      {"ZEMA Lum not ready", [this] { process->health.setZemaLumNotReady(); }, kTwo},
      {"Cannot perform install due to an existing VM",
       [this] { script.rpc_failures["op 19"] = "VM [a] is running"; }, kTwo},
      {"Malformed", [] {}, R"(host_switches { id: "502e" name: "ks-1" type: 3 })"},
  };
  for (const auto& c : cases) {
    StartProcess();
    c.prepare();
    EXPECT_THAT(Apply(kNode + std::string("zem_down: true revision: \"1\" ") + c.switches),
                testing::Not(HasSubstr("error_code: 0")));
    EXPECT_FALSE(process->host.id()) << c.reason;
    EXPECT_FALSE(process->health.status_down()) << c.reason;
    EXPECT_FALSE(process->state.kln_follows_health) << c.reason;
    EXPECT_FALSE(files.HasHostConfigFile()) << c.reason;
    script.rpc_failures.clear();
    script.commands.clear();
    process->health.setZemaLumReady();
    EXPECT_THAT(Apply(kNode + std::string("revision: \"2\" ") + kTwo), HasSubstr("error_code: 0"));
    EXPECT_TRUE(script.Heard("19:")) << c.reason;
    EXPECT_EQ(process->host.id(), "node-1");
    ASSERT_THAT(Apply(R"(id: "c1" revision: "-1")"), HasSubstr("error_code: 0"));
  }
}

// Ports of VMs keep the data that ties them to their VIFs on a switch that stays, even when its security
// changes.
TEST_F(HostConfigTest, WithdrawnSecurityClearsPortsOfLeavingSwitchesAlone) {
  const std::string secure =
      std::string(kNode) + R"(revision: "0" )" + kTwo +
      R"(host_switches { id: "502e3333-3333-3333-9d33-333333333333" name: "ks-3" type: 2
                                  mtu: 1500 transport_zone_id: "z3" static_address: true } )";
  auto config = Config(secure);
  for (auto& host_switch : *config.mutable_host_switches()) host_switch.set_security(true);
  ASSERT_THAT(Apply(config.DebugString()), HasSubstr("error_code: 0"));
  config.set_revision("0");
  ASSERT_THAT(Apply(config.DebugString()), HasSubstr("error_code: 0"));
  const std::string leaving = "50 2e 33 33 33 33 33 33-9d 33 33 33 33 33 33 33";
  for (const std::string& dvs : {std::string(kOverlay), leaving}) {
    ASSERT_TRUE(state->SwitchProperty(dvs, "host", port_props::kKlnSecurityEnabled)) << dvs;
  }
  Create(Description("lp-1"), kVif, Vm("vm1"));
  ASSERT_THAT(Apply(std::string(kNode) + R"(revision: "2" )" + kTwo), HasSubstr("error_code: 0"));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kExternalId), kVif);
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kOpaqueNetworkId), kLs);
  EXPECT_THAT(state->SwitchIds(), ElementsAre(kOverlay, kVlanSwitch));
}

// Only a port that was made for security alone has the mark; the agent does not own a port without logical
// port.
TEST_F(HostConfigTest, PortsAreMarkedForSecurityByThemselvesNotByTheirSwitch) {
  auto config = Config(std::string(kNode) + R"(revision: "0" )" + kTwo);
  for (auto& host_switch : *config.mutable_host_switches()) host_switch.set_security(true);
  ASSERT_THAT(Apply(config.DebugString()), HasSubstr("error_code: 0"));
  for (const char* port : {"lp-1", "lp-2", "lp-3", "lp-4"}) Create(Description(port), kVif, Vm("vm1"));
  ASSERT_TRUE(state->SetPortProperty(kOverlay, "lp-1", port_props::kLogicalPortId, "logical-1"));
  ASSERT_TRUE(state->SetPortProperty(kOverlay, "lp-2", port_props::kLogicalPortId, "logical-2"));
  ASSERT_TRUE(state->SetPortProperty(kOverlay, "lp-2", port_props::kSecurityEnable, "true"));
  // The host has another VIF on this port.
  ASSERT_TRUE(state->SetPortProperty(kOverlay, "lp-4", port_props::kLogicalPortId, "logical-4"));
  auto other = std::make_shared<VifRequest>();
  other->port_id = "lp-4";
  ports.site_configs().AddVifForSiteConfig("vif-9", std::move(other));
  log.Clear();
  ASSERT_THAT(Apply(config.DebugString()), HasSubstr("error_code: 0"));
  EXPECT_EQ(Property(kOverlay, "lp-4", port_props::kExternalId), "(none)");
  EXPECT_TRUE(log.Contains("dvport [" + std::string(kOverlay) + ":lp-4] has stale vifId [" + kVif + "]"));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kSecurityEnable), "(none)");
  EXPECT_EQ(Property(kOverlay, "lp-2", port_props::kSecurityEnable), "true");
  EXPECT_EQ(Property(kOverlay, "lp-3", port_props::kLogicalPortId), "(none)");
  EXPECT_TRUE(log.Contains("vifId or logicalPortId is missing for [" + std::string(kOverlay) + ":lp-3]"));
}

TEST_F(HostConfigTest, RuntimeUpdatesAreDisabledWithoutDataAndTheirPortsCleared) {
  ASSERT_THAT(Apply(std::string(kNode) + R"(revision: "1" )" + kTwo), HasSubstr("error_code: 0"));
  Create(Description("lp-1"), kVif, Vm("vm1"));
  auto config = Config(std::string(kNode) + R"(revision: "2" )" + kTwo);
  config.mutable_host_switches(0)->set_vif_collection_status(2);
  script.rpc_reply = "disabled";
  script.commands.clear();
  Apply(config.DebugString());
  EXPECT_THAT(script.commands, testing::Contains("22:"));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kExternalId), "(none)");
}

TEST_F(HostConfigTest, RoutersComeBackAlsoWhenTheHostDoesNotListItsSwitches) {
  script.before = [this](const std::string& command) {
    if (command.starts_with("applyDvses(")) script.answers["queryDvsListWithoutFlag"] = "busy";
  };
  EXPECT_THAT(Apply(std::string(kNode) + R"(revision: "1" )" + kTwo),
              HasSubstr("queryDvsListWithoutFlag() failed: [busy]"));
  EXPECT_EQ(RouterOf(kOverlay), "connected");
  EXPECT_THAT(process->health.dvs_vdr_macs(), SizeIs(2));
}

// The host has lost its routers; the stored configuration still has them.
TEST_F(HostConfigTest, RoutersComeBackWhenTheHostHasStartedAnew) {
  ASSERT_THAT(Apply(std::string(kNode) + R"(revision: "1" )" + kTwo), HasSubstr("error_code: 0"));
  state->RebootHost();
  ASSERT_EQ(RouterOf(kOverlay), "none");
  StartProcess();
  ReconnectRoutersAtStart(*process->context, {{kOverlay, "ks-1"}, {kVlanSwitch, "ks-2"}});
  EXPECT_EQ(RouterOf(kOverlay), "connected");
  EXPECT_EQ(RouterOf(kVlanSwitch), "none");
}

}  // namespace
}  // namespace zem::zema
