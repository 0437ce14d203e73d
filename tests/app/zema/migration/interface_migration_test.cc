// The moves of interfaces: which are refused, which commands go to the host, and how its answers change the
// message.

#include "app/zema/migration/interface_migration.h"

#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include "app/zema/hostswitch/port_group_vms.h"
#include "app/zema/migration/knl_validation.h"
#include "app/zema/migration/migration_command.h"
#include "app/zema/migration/migration_record.h"
#include "app/zema/proxy/error_sink.h"
#include "proto/switching/switching.pb.h"
#include "tests/app/zema/proxy/fake_lum_commands.h"
#include "tests/support/log_capture.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::HostConfigMsg;
using orlane::zem::switching::QubMgmtIfToLogicSwitchMsg;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Texts = std::vector<std::string>;

constexpr const char* kUuid = "502e1122-3344-5566-7788-99aabbccdd01";
constexpr const char* kId = "50 2e 11 22 33 44 55 66-77 88 99 aa bb cc dd 01";
constexpr const char* kOther = "50 2e 11 22 33 44 55 66-77 88 99 aa bb cc dd 02";

// Two switches, "kln" with overlay (kId) and "nvs" (kOther), with the given `migration`.
HostConfigMsg Config(const std::string& migration, const std::string& rest = "") {
  HostConfigMsg config;
  const std::string text = std::string(R"(
      host_switches {
        id: ")") + kUuid + R"(" name: "kln" type: 2 overlay: true transport_vlan: 7 transport_zone_id: "z1"
        vteps { device_name: "knl5" } vteps { device_name: "knl6" }
        pnic { device_name: "vmnic1" uplink_name: "up1" }
        profiles { uplink_profile { active_uplink { name: "up1" } standby_uplink { name: "up2" } } }
      }
      host_switches {
        id: ")" + kOther + R"(" name: "nvs" type: 1 transport_zone_id: "z2"
        pnic { device_name: "vmnic2" uplink_name: "up1" }
        profiles {
          uplink_profile { active_uplink { name: "up1" } }
          named_uplink_profile { name: "t9" uplink_profile { active_uplink { name: "up9" } } }
        }
      })" + rest + (migration.empty() ? "" : " qub_if_migration {" + migration + "}");
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &config)) << text;
  return config;
}

std::string In(const std::string& id, const std::string& fields) {
  return " to_lswitches { host_switch_id: \"" + id + "\" " + fields + " }";
}

std::string Out(const std::string& id, const std::string& fields) {
  return " to_vsw_or_psw { host_switch_id: \"" + id + "\" " + fields + " }";
}

const std::string kKnlIn =
    In(kOther, R"(device: "knl0" lswitch_id: "l1" vif_id: "v1" logical_port_id: "p1")");
const std::string kVtepIn = In(kUuid, R"(device: "knl5" is_vtep: true lswitch_id: "12")");

struct Migration {
  Migration() {
    settings.create_port = [this](const QubMgmtIfToLogicSwitchMsg& entry, const std::string& zone) {
      ports.push_back(entry.logical_port_id() + "@" + zone);
      return port_error.empty() ? Outcome::Done() : Outcome::Failed(port_error);
    };
    settings.leave_port = [this](const QubMgmtIfToLogicSwitchMsg& entry, const std::string& zone) {
      left.push_back(entry.logical_port_id() + "@" + zone);
      return Outcome::Done();
    };
    settings.leaving = [this](const Texts& vifs) { leaving.insert(leaving.end(), vifs.begin(), vifs.end()); };
    settings.leave_ports = [this](const std::string& vif, const std::string& kept) {
      left.push_back(vif + " but " + kept);
      return Outcome::Done();
    };
    settings.set_del_zem_running = [this](bool running) { calls += running ? "del " : "nodel "; };
    settings.flush_desired_config = [this] { calls += "flush "; };
  }

  bool Convert(HostConfigMsg* config) {
    return ConvertDvsUuidsAndPopulateKnlMigrationMap(config, &map, errors);
  }
  InterfaceMigration Make() { return InterfaceMigration(lum, errors, record, settings); }

  FakeLumCommands lum;
  ErrorSink errors;
  MigrationRecord record;
  InterfaceMigrationSettings settings;
  KnlMigrationMap map;
  Texts ports;
  Texts left;
  Texts leaving;
  std::string port_error;
  std::string calls;
};

TEST(MigrationMessageTest, RefusalsThatNeedOnlyTheMessage) {
  const struct {
    std::string migration;
    std::string text;
  } rows[] = {
      {kKnlIn, ""},
      {kVtepIn, ""},
      {Out(kUuid, R"(device: "knl0" port_group: "Management Network")"), ""},
      {Out(kUuid, R"(port_group: "vSwitch0")"), ""},
      {kKnlIn + Out(kUuid, R"(device: "knl0")"),
       "Invalid qub_if_migration msg. Both to_lswitches and to_vsw_or_psw are present."},
      {In("602e1122-3344-5566-7788-99aabbccdd01", R"(device: "knl0")"),
       "Invalid qub_if_migration msg: host_switch_id 60 2e 11 22 33 44 55 66-77 88 99 aa bb cc dd 01 not "
       "found in "
       "HostConfigMsg.host_switches"},
      {In(kOther, R"(device: "knl5" is_vtep: true)"), "Cannot migrate VTEP knl5 into non-overlay NKLN nvs"},
      {In(kUuid, R"(device: "knl0" is_vtep: false)"), "Cannot migrate non-VTEP knl0 into KLN kln"},
      {Out(kUuid, ""),
       std::string(
           "Invalid qub_if_migration message: DVS/PLN name is not found in port_group field for migrating "
           "only PNICs out of host-switch ") +
           kId},
      {In("nonsense", R"(device: "knl0")"), "Malformed host_switch ID: [nonsense]"},
  };
  for (const auto& row : rows) {
    Migration m;
    HostConfigMsg config = Config(row.migration);
    EXPECT_EQ(m.Convert(&config), row.text.empty()) << row.migration;
    EXPECT_EQ(m.errors.texts(), row.text.empty() ? Texts{} : Texts{row.text});
    EXPECT_EQ(m.errors.code(), row.text.empty() ? 0U : 8700U);
  }
}

TEST(MigrationMessageTest, TheMapIsByTheHostsIdsAndAnEndpointGetsItsVlanAndLabel) {
  Migration m;
  HostConfigMsg config =
      Config(kVtepIn + In(kUuid, R"(device: "knl7" is_vtep: true label: 3 lswitch_id: "12")") + kKnlIn +
             " knl_ping_ip { host_switch_id: \"" + kUuid + "\" ping_ip: \"10.0.0.1\" }");
  test::LogCapture log;
  ASSERT_TRUE(m.Convert(&config));
  EXPECT_EQ(config.host_switches(0).id(), kId);
  ASSERT_THAT(m.map, SizeIs(2));
  const KnlMigration& kln = m.map.at(kId);
  EXPECT_EQ(kln.ping_ip, "10.0.0.1");
  ASSERT_THAT(kln.to_logical_switch, SizeIs(2));
  EXPECT_EQ(kln.to_logical_switch[0]->vlan(), 7U);
  EXPECT_EQ(kln.to_logical_switch[0]->label(), 12U);
  EXPECT_EQ(kln.to_logical_switch[1]->label(), 3U);
  EXPECT_THAT(m.map.at(kOther).to_logical_switch, SizeIs(1));
  EXPECT_FALSE(m.map.at(kOther).to_logical_switch[0]->has_vlan());
  EXPECT_TRUE(log.Contains(std::string("VTEP knl7 is not in the vteps spec of NKLN [") + kId +
                           "]; it will be deleted after migration"));
}

TEST(MigrationMessageTest, SecurityOnly) {
  const std::pair<std::string, bool> rows[] = {
      {"", true},
      {kKnlIn, false},
      {In(kOther, R"(device: "knl0" init_state: "SECURITY_ONLY")"), true},
      {Out(kOther, R"(device: "knl0" port_group: "dvportgroup-7")"), true},
      {Out(kOther, R"(device: "knl0" port_group: "Management Network")"), false},
  };
  for (const auto& [migration, expected] : rows) {
    EXPECT_EQ(IsSecurityOnlyMigration(Config(migration)), expected) << migration;
  }
}

TEST(MigrationRecordTest, OnlyTheRunningOperationIsAMigration) {
  MigrationRecord record;
  for (const char* id : {"migrate-knl-and-pnic-to-pln0", "migrate-knl-and-pnic-to-pln1"}) {
    EXPECT_FALSE(record.IsMigrating(id));
    const MigrationRecord::Scope running(record, MigrationRecord::Kind::kToPln);
    EXPECT_EQ(running.op_id(), id);
    EXPECT_TRUE(record.IsMigrating(id));
    EXPECT_FALSE(record.IsMigrating("migrate-knl-and-pnic-to-logical-switch0"));
  }
  EXPECT_FALSE(record.IsMigrating("migrate-knl-and-pnic-to-pln1"));
  EXPECT_FALSE(record.IsMigrating(""));
  EXPECT_EQ(MigrationRecord::Scope(record, MigrationRecord::Kind::kToLogicalSwitch).op_id(),
            "migrate-knl-and-pnic-to-logical-switch0");
}

TEST(MigrationCommandTest, OutOfASwitch) {
  Migration m;
  HostConfigMsg config = Config(Out(kUuid, R"(device: "knl0" port_group: "Management Network"
                                              previous_vif_id: "v1" previous_logical_port_id: "p1")") +
                                Out(kUuid, R"(device: "vm1:4000" port_group: "VM Network")") +
                                Out(kUuid, R"(port_group: "vSwitch0")") +
                                " knl_ping_ip { host_switch_id: \"" + kUuid + "\" ping_ip: \"10.0.0.1\" }");
  ASSERT_TRUE(m.Convert(&config));
  const std::string command =
      std::string("migrateToPLN(dvsUuid=") + kId +
      "|opId=migrate-knl-and-pnic-to-pln0|pnicsToSetInDvs=up1,up2|knlPingTryTimes=4|pnicUplinkPairList="
      "vmnic1,up1"
      "|mgmtKnlPingIp=10.0.0.1|dvsOrPlnName=vSwitch0|knlToVswOrPsw=knl0,Management Network,p1,v1"
      "|vmuuiddevicepair=vm1:4000,VM Network)";
  // The host removes the vNIC's VIF from its port in the middle of the move.
  m.lum.while_asked = [&] {
    m.record.NoteLeft("migrate-knl-and-pnic-to-pln0", "v4");
    m.record.NoteLeft("another operation", "v5");
  };
  EXPECT_TRUE(m.Make().MigrateToPLN(config, m.map));
  EXPECT_THAT(m.lum.commands, ElementsAre(command));
  EXPECT_THAT(m.left, ElementsAre("v4 but ", "v1 but "));
  EXPECT_THAT(m.leaving, ElementsAre("v1"));
  EXPECT_EQ(m.record.kind(), MigrationRecord::Kind::kNone);
  m.left.clear();

  // A switch that the configuration no longer has keeps no physical NIC; a failure is reported, with a new
  // operation id.
  config.clear_host_switches();
  const std::string alone =
      std::string("migrateToPLN(dvsUuid=") + kId +
      "|opId=migrate-knl-and-pnic-to-pln1|pnicsToSetInDvs=|knlPingTryTimes=4|mgmtKnlPingIp="
      "10.0.0.1|dvsOrPlnName=vSwitch0|knlToVswOrPsw=knl0,Management Network,p1,v1"
      "|vmuuiddevicepair=vm1:4000,VM Network)";
  m.lum.Script(alone, {"no ping"});
  m.lum.Script("getKnlsInLogicalSwitchesAndKnlsOfGivenTypes(",
               {std::string("ok|knl0~v1~p1~") + kId + "~management~~", "ok"});
  EXPECT_FALSE(m.Make().MigrateToPLN(config, m.map));
  EXPECT_THAT(m.errors.texts(), ElementsAre(std::string("MigrateOutofLS(") + kId + ") failed: [no ping]"));
  EXPECT_THAT(m.left, IsEmpty()) << "it is where it was";
  EXPECT_EQ(m.record.kind(), MigrationRecord::Kind::kNone);
  m.lum.Script("migrateToPLN(", {"no answer"});
  EXPECT_FALSE(m.Make().MigrateToPLN(config, m.map));
  EXPECT_THAT(m.left, ElementsAre("v1 but ")) << "it has moved all the same";
  m.left.clear();

  // An agent that ended after the move has left its VIFs to this one; the host's list does not contain them.
  m.settings.left_before = {"v9"};
  EXPECT_TRUE(m.Make().MigrateToPLN(config, {}));
  EXPECT_THAT(m.left, ElementsAre("v9 but "));
}

std::string ToLs(const std::string& id, int serial, const std::string& rest) {
  return "migrateToLS(dvsUuid=" + id + "|opId=migrate-knl-and-pnic-to-logical-switch" +
         std::to_string(serial) + "|pnicUplinkPairList=" + rest + ")";
}

TEST(MigrationCommandTest, IntoASwitch) {
  Migration m;
  HostConfigMsg config =
      Config(kKnlIn + In(kOther, R"(device: "knl1" lswitch_id: "l2" vif_id: "v2" logical_port_id: "p2"
                                    transport_zone_id: "zx" port_group: "pg" tail_number: 9)") +
             In(kOther, R"(device: "vm1:4000" lswitch_id: "l3" vif_id: "v3" logical_port_id: "p3")") +
             kVtepIn + In(kUuid, R"(device: "knl6" is_vtep: true label: 5 tail_number: 8)") +
             " knl_ping_ip { host_switch_id: \"" + kOther + "\" ping_ip: \"10.0.0.1\" }");
  ASSERT_TRUE(m.Convert(&config));
  const std::string command =
      ToLs(kOther, 0,
           "vmnic2,up1,vmnic3,up2|knlPingTryTimes=4|mgmtKnlPingIp=10.0.0.1|knlToLs=knl0,v1,l1,not_vtep,"
           "|knlToLs=knl1,v2,l2,pg,not_vtep,9|vmuuiddevicepair=vm1:4000,v3,l3,p3,");
  m.lum.Script(command, {"ok:/vm/vm1.cfg"});
  Texts vteps;
  EXPECT_TRUE(m.Make().MigrateToLogicalSwitch(config.mutable_host_switches(1), "NVS", m.map.at(kOther),
                                              {"vmnic2~up1", "vmnic3~up2"}, &vteps));
  EXPECT_THAT(m.lum.commands, ElementsAre(command));
  EXPECT_THAT(m.ports, ElementsAre("p1@z2", "p2@zx", "p3@z2"));
  EXPECT_THAT(m.left, ElementsAre("v1 but p1", "v2 but p2", "v3 but p3"));
  EXPECT_THAT(vteps, IsEmpty());
  const auto& entries = config.qub_if_migration().to_lswitches();
  EXPECT_EQ(entries[0].previous_vif_id() + entries[0].previous_logical_port_id(), "v1p1");
  EXPECT_FALSE(entries[0].has_gcf_path());
  EXPECT_EQ(entries[2].gcf_path(), "/vm/vm1.cfg");

  // Endpoints need no port.
  m.ports.clear();
  EXPECT_TRUE(
      m.Make().MigrateToLogicalSwitch(config.mutable_host_switches(0), "KLN", m.map.at(kId), {}, &vteps));
  EXPECT_EQ(m.lum.commands.back(),
            ToLs(kId, 1, "|knlPingTryTimes=4|knlToLs=knl5,12,12,is_vtep,|knlToLs=knl6,,5,is_vtep,8"));
  EXPECT_THAT(m.ports, IsEmpty());
  EXPECT_THAT(vteps, ElementsAre("knl5", "knl6"));
}

// The message after a failed move, and the error that the manager gets.
TEST(MigrationCommandTest, FailuresIntoASwitch) {
  const struct {
    std::string reply;
    std::string text;
    size_t endpoints;
  } rows[] = {
      {"failed VTEPs:knl5|no such interface", "no such interface", 1},
      {"failed VTEPs:knl5,knl6|no", "no", 0},
      {"failed VTEPs:|no", "no", 1},
      {"something went wrong", "something went wrong", 1},
      {"a|b", "a|b", 1},
      {"", "", 1},
      {std::string(LumCommands::kReadFailed), "socket read failed", 1},
  };
  for (const auto& row : rows) {
    Migration m;
    HostConfigMsg config = Config(kVtepIn);
    ASSERT_TRUE(m.Convert(&config));
    m.lum.Script(ToLs(kId, 0, "|knlPingTryTimes=4|knlToLs=knl5,12,12,is_vtep,"), {row.reply});
    Texts vteps;
    EXPECT_FALSE(
        m.Make().MigrateToLogicalSwitch(config.mutable_host_switches(0), "KLN", m.map.at(kId), {}, &vteps));
    EXPECT_THAT(m.errors.texts(),
                ElementsAre(std::string("MigrateToLS(") + kId + ") failed: [" + row.text + "]"));
    EXPECT_THAT(config.host_switches(0).vteps(), SizeIs(row.endpoints)) << row.reply;
    EXPECT_THAT(vteps, IsEmpty());
    EXPECT_EQ(m.record.kind(), MigrationRecord::Kind::kNone);
  }
}

// A second try may ask for another port with the same VIF; a port that is in use after all keeps its VIF.
TEST(MigrationCommandTest, PortsOfAFailedMoveLoseTheirVifs) {
  const std::string there = std::string("ok|knl0~v1~p1~") + kOther + "~management~~";
  const std::string unanswered(LumCommands::kReadFailed);
  const struct {
    const char* what;
    std::string reply;
    std::deque<std::string> lists;
    int vm_of_vif;
    Texts left;
  } rows[] = {
      {"neither moved", "no ping", {"ok"}, 0, {"p1@z2", "p3@z2"}},
      {"both did", "no ping", {there}, LumCommands::kRpcSucceeded, {}},
      {"nobody knows", "no ping", {unanswered, unanswered}, LumCommands::kRpcSocketFailure, {}},
      {"the next script knows", unanswered, {unanswered, "ok"}, 0, {"p1@z2", "p3@z2"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Migration m;
    HostConfigMsg config = Config(
        kKnlIn + In(kOther, R"(device: "vm1:4000" lswitch_id: "l3" vif_id: "v3" logical_port_id: "p3")"));
    ASSERT_TRUE(m.Convert(&config));
    m.lum.Script("migrateToLS(", {row.reply});
    m.lum.Script("getKnlsInLogicalSwitchesAndKnlsOfGivenTypes(", row.lists);
    m.lum.rpc_status = row.vm_of_vif;
    Texts vteps;
    EXPECT_FALSE(m.Make().MigrateToLogicalSwitch(config.mutable_host_switches(1), "NVS", m.map.at(kOther), {},
                                                 &vteps));
    EXPECT_EQ(m.left, row.left);
  }
}

TEST(MigrationCommandTest, NothingMovesWithoutItsPort) {
  Migration m;
  m.port_error = "no switch";
  HostConfigMsg config = Config(kKnlIn + In(kOther, R"(device: "knl5" is_vtep: true)"));
  config.mutable_host_switches(1)->set_overlay(true);
  config.mutable_host_switches(1)->add_vteps()->set_device_name("knl5");
  ASSERT_TRUE(m.Convert(&config));
  Texts vteps;
  EXPECT_FALSE(
      m.Make().MigrateToLogicalSwitch(config.mutable_host_switches(1), "NVS", m.map.at(kOther), {}, &vteps));
  EXPECT_THAT(m.errors.texts(),
              ElementsAre(std::string("MigrateToLS(") + kOther + ") failed to create port: [no switch]"));
  EXPECT_THAT(m.lum.commands, ElementsAre("getKnlsInLogicalSwitchesAndKnlsOfGivenTypes(management)"));
  EXPECT_THAT(m.left, ElementsAre("p1@z2")) << "half of it may be there";
  EXPECT_THAT(config.host_switches(1).vteps(), IsEmpty());
}

// No interface moves with them, so no port is created, whatever the kind of the switch.
TEST(MigrationCommandTest, PhysicalNicsAloneIntoASwitch) {
  for (const std::string& id : {std::string(kUuid), std::string(kOther)}) {
    Migration m;
    HostConfigMsg config = Config(In(id, ""));
    ASSERT_TRUE(m.Convert(&config));
    Texts vteps;
    auto* const host_switch = config.mutable_host_switches(id == kUuid ? 0 : 1);
    EXPECT_TRUE(m.Make().MigrateToLogicalSwitch(host_switch, "NVS", m.map.at(host_switch->id()),
                                                {"vmnic2~up1"}, &vteps));
    EXPECT_THAT(m.ports, IsEmpty());
    EXPECT_THAT(m.lum.commands, ElementsAre(ToLs(host_switch->id(), 0, "vmnic2,up1|knlPingTryTimes=4")));
  }
}

TEST(MigrationCommandTest, AValueWithASeparatorDoesNotReachTheHost) {
  for (const char* field : {"device: \"knl0,x\"", "lswitch_id: \"a|b\"", "vif_id: \"v)\""}) {
    Migration m;
    HostConfigMsg config = Config(In(kOther, field));
    ASSERT_TRUE(m.Convert(&config));
    Texts vteps;
    EXPECT_FALSE(m.Make().MigrateToLogicalSwitch(config.mutable_host_switches(1), "NVS", m.map.at(kOther), {},
                                                 &vteps));
    EXPECT_THAT(m.errors.texts(), SizeIs(1));
    EXPECT_THAT(m.lum.commands, IsEmpty());
    EXPECT_THAT(m.ports, IsEmpty());
  }
  Migration m;
  HostConfigMsg config = Config(kVtepIn + In(kUuid, R"(device: "knl,9" is_vtep: true)"));
  ASSERT_TRUE(m.Convert(&config));
  Texts vteps;
  EXPECT_FALSE(
      m.Make().MigrateToLogicalSwitch(config.mutable_host_switches(0), "KLN", m.map.at(kId), {}, &vteps));
  EXPECT_THAT(config.host_switches(0).vteps(), SizeIs(1)) << "knl5 is no endpoint yet";
}

TEST(KnlValidationTest, Replies) {
  const struct {
    std::string reply;
    std::optional<size_t> knls;
  } rows[] = {
      {"ok", 0},      {"ok|", 0},        {"ok|knl0~~~~management~vmnic0~", 1},
      {"ok|a~b", {}}, {"ok|~~~~~~", {}}, {"ok|knl0~v~p~s~t~m~n|knl1~~~~~~", 2},
      {"okay", {}},   {"", {}},          {"ok|knl0~v~p~s~t~m~n|", {}},
  };
  for (const auto& row : rows) {
    const auto knls = ParseKnls(row.reply);
    EXPECT_EQ(knls ? std::optional(knls->size()) : std::nullopt, row.knls) << row.reply;
  }
  EXPECT_EQ(ParseKnls("ok|knl0~v~p~s~t~m~n").value().at(0), (HostKnl{"knl0", "v", "p", "s", "t", "m", "n"}));
}

constexpr const char* kQuery = "getKnlsInLogicalSwitchesAndKnlsOfGivenTypes(management)";
constexpr const char* kPhase2 = " phase: PHASE2_COMBINED";

// In the second phase the host's interfaces are read before anything moves.
TEST(KnlValidationTest, InterfaceRules) {
  const struct {
    std::string reply;
    Texts texts;
    std::string previous;
  } rows[] = {
      {"ok", {}, ""},
      {"ok|knl0~~~~management~vmnic0~", {}, ""},
      {std::string("ok|knl0~v1~p1~") + kOther + "~management~~", {}, "v1p1"},
      {std::string("ok|knl0~v0~p0~") + kOther + "~management~~", {}, "v0p0"},
      {std::string("ok|knl0~v0~p1~") + kOther + "~management~~",
       {"The knl knl0 is already connected to logical port p1; changing its VIF-id from v0 to v1 is not "
        "supported"},
       "v0p1"},
      {std::string("ok|knl0~v1~p0~") + kOther + "~management~~",
       {"Migrating knl knl0 from logical port p0 to port p1 does not support keeping the same VIF-id v1"},
       "v1p0"},
      {std::string("ok|knl0~v0~p0~") + kId + "~management~~",
       {std::string("Migrating knl knl0 from host-switch ") + kId + " to " + kOther + " is not support."},
       "v0p0"},
      {"no", {"getKnlsInLogicalSwitchesAndKnlsOfGivenTypes reply no"}, ""},
      {"ok|x", {"Invalid getKnlsInLogicalSwitchesAndKnlsOfGivenTypes reply: [ok|x]"}, ""},
  };
  for (const auto& row : rows) {
    Migration m;
    HostConfigMsg config = Config(
        In(kOther,
           R"(device: "knl0" lswitch_id: "l1" vif_id: "v1" logical_port_id: "p1" previous_vif_id: "stale")"),
        kPhase2);
    ASSERT_TRUE(m.Convert(&config));
    m.lum.Script(kQuery, {row.reply});
    bool migrate = true;
    EXPECT_EQ(m.Make().PrepareAndMigrate(&config, &m.map, &migrate, false), row.texts.empty()) << row.reply;
    EXPECT_EQ(m.errors.texts(), row.texts);
    const auto& entry = config.qub_if_migration().to_lswitches(0);
    EXPECT_EQ(entry.previous_vif_id() + entry.previous_logical_port_id(), row.previous) << row.reply;
    EXPECT_THAT(m.lum.commands, ElementsAre(kQuery));
  }
}

TEST(KnlValidationTest, AnInterfaceKeepsAPnic) {
  const struct {
    std::string migration;
    HostKnl knl;
    bool good;
  } rows[] = {
      {kKnlIn, {"knl0", "", "", "", "management", "vmnic0", ""}, true},
      {"", {"knl0", "", "", "", "management", "vmnic0", ""}, true},
      {"", {"knl0", "", "", kOther, "management", "vmnic0", ""}, true},
      // The teaming of the port has no physical NIC.
      {"", {"knl0", "", "", kOther, "management", "vmnic0", "t9"}, false},
      {In(kOther, R"(device: "knl0" uplink_teaming_name: "t9")"),
       {"knl0", "", "", "", "management", "", ""},
       false},
      {In(kOther, R"(device: "knl0" uplink_teaming_name: "t9")"),
       {"knl0", "", "", "", "other", "", ""},
       true},
      {Out(kOther, R"(device: "knl0" port_group: "x")"),
       {"knl0", "", "", kOther, "management", "", "t9"},
       true},
      {"", {"knl0", "", "", kId, "management", "vmnic0", "t9"}, true},
  };
  for (const auto& row : rows) {
    Migration m;
    HostConfigMsg config = Config(row.migration);
    ASSERT_TRUE(m.Convert(&config));
    EXPECT_EQ(ValidateTeaming({row.knl}, "management", config, m.errors), row.good) << row.migration;
    EXPECT_EQ(m.errors.texts(),
              row.good ? Texts{} : Texts{"Uplink teaming of host-switch nvs for knl knl0: no pnic"});
  }
}

// When the host's profile has made the moves, the agent does not make them again.
TEST(InterfaceMigrationTest, WhetherAnythingMovesIn) {
  const struct {
    std::string migration;
    bool before;
    bool after;
    size_t records;
  } rows[] = {
      {kKnlIn, true, true, 1},
      {kKnlIn, false, false, 0},
      {Out(kOther, R"(device: "knl0" port_group: "x")"), true, false, 1},
      {"", true, true, 0},
  };
  for (const auto& row : rows) {
    Migration m;
    HostConfigMsg config = Config(row.migration);
    ASSERT_TRUE(m.Convert(&config));
    bool migrate = row.before;
    EXPECT_TRUE(m.Make().PrepareAndMigrate(&config, &m.map, &migrate, false));
    EXPECT_EQ(migrate, row.after);
    EXPECT_THAT(m.map, SizeIs(row.records));
    EXPECT_THAT(MigratedPnicsOf(m.map), SizeIs(row.records));
  }
}

TEST(InterfaceMigrationTest, RemovalAskedForOnTheHost) {
  Migration m;
  HostConfigMsg config = Config("");
  bool migrate = false;
  EXPECT_TRUE(m.Make().ValidateHostConfigMsgForMigration(false));
  EXPECT_THAT(m.lum.commands, IsEmpty());
  EXPECT_TRUE(m.Make().ValidateHostConfigMsgForMigration(true));
  EXPECT_TRUE(m.Make().PrepareAndMigrate(&config, &m.map, &migrate, true));
  EXPECT_THAT(m.lum.commands, ElementsAre("validateHostForDelZem()", "migrateResourcesForDelZem()"));
  EXPECT_EQ(m.calls, "del flush ");

  m.lum.Script("validateHostForDelZem()", {"VM"});
  m.lum.Script("migrateResourcesForDelZem()", {"stuck"});
  EXPECT_FALSE(m.Make().ValidateHostConfigMsgForMigration(true));
  EXPECT_FALSE(m.Make().PrepareAndMigrate(&config, &m.map, &migrate, true));
  EXPECT_EQ(m.calls, "del flush del flush nodel ");
  EXPECT_THAT(m.errors.texts(), ElementsAre("ValidateHostForDelZem() failed: [VM]",
                                            "MigrateResourcesForDelZem() failed: [stuck]"));
}

TEST(PortGroupVmsTest, LinesOfSixMembers) {
  FakeLumCommands lum;
  HostConfigMsg config;
  lum.rpc_reply = "a|b|c|d|e|f\nshort|line\n\n1|2|3|4||\n";
  RetrieveVmsConnectedToDvpg(lum, &config);
  ASSERT_EQ(config.vm_information_size(), 2);
  EXPECT_THAT(config.vm_information(0).token(), ElementsAre("a", "b", "c", "d", "e", "f"));
  EXPECT_THAT(config.vm_information(1).token(), ElementsAre("1", "2", "3", "4", "", ""));
  lum.rpc_status = 0;
  RetrieveVmsConnectedToDvpg(lum, &config);
  EXPECT_EQ(config.vm_information_size(), 2);
}

}  // namespace
}  // namespace zem::zema
