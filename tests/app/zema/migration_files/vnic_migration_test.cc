// Migrations that a tool of the host describes in files.

#include "app/zema/migration_files/vnic_migration_task.h"

#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "app/zema/covedb/config_files.h"
#include "app/zema/hostconfig/host_config_context.h"
#include "app/zema/hostlib/config_ops_manager.h"
#include "app/zema/hostlib/endpoint_library.h"
#include "app/zema/hostlib/router_library.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/hostswitch/high_performance_profile.h"
#include "app/zema/hostswitch/router_ports.h"
#include "app/zema/migration/migration_record.h"
#include "app/zema/migration_files/interface_request.h"
#include "app/zema/ports/port_description.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/state/health_record.h"
#include "app/zema/state/host_config_state.h"
#include "framework/node/host_identity.h"
#include "platform/core/virtual_clock.h"
#include "tests/app/zema/hostconfig/noted_follow_ups.h"
#include "tests/app/zema/proxy/fake_lum_commands.h"
#include "tests/app/zema/state/no_publisher.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::HostConfigMsg;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Read = MigrationFile::Read;

constexpr const char* kId = "502e0000-0000-4000-8000-000000000001";

HostConfigMsg Stored() {
  HostConfigMsg config;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(
      R"(transport_node_id: "tn" id: "c1"
         host_switches { id: "50 2e 00 00 00 00 40 00-80 00 00 00 00 00 00 01" name: "ks-1"
                         pnic { device_name: "knlnic0" uplink_name: "uplink1" }
                         vteps { device_name: "knl10" state: 4 ipv4_address: "10.0.0.1" }
                         vteps { state: 1 } }
         host_switches { id: "plain" name: "ks-2" }
         qub_if_migration { to_lswitches { device: "old" } })",
      &config));
  return config;
}

std::string WithSwitch(const std::string& more, bool in = true) {
  return std::string(R"({"migrate_to_ndvs": )") + (in ? "true" : "false") + R"(, "host_switches": [{)" +
         more + "}]}";
}

// Returns the error; empty when the request was put into the configuration.
std::string Put(const std::string& text, HostConfigMsg* config) {
  MigrationRequest request;
  std::string error;
  if (MigrationFile::Parse(text, &request, &error) != Read::kDone) return error;
  *config = Stored();
  PutIntoConfig(request, config, &error) ? error.clear() : void();
  return error;
}

// If a half-understood request were carried out, it would take interfaces off their network.
TEST(MigrationFileTest, AnInvalidFileIsRefusedWithItsReason) {
  struct Case {
    std::string text;
    const char* error;
  };
  const std::string s1 = std::string(R"("host_switch_id": ")") + kId + "\"";
  const std::string pnics = R"(, "pnics": [{"device_name": "knlnic1", "uplink_name": "u"}])";
  const std::string bad_vnic = s1 + pnics + R"(, "vnics": [{"vnic_id": "knl1", )";
  const Case cases[] = {
      {"[]", "an object is expected"},
      {"true", "an object is expected"},
      {"{\"a\": ", "expected"},
      {"{\"a\":" + std::string(40, '[') + std::string(40, ']') + "}", "nested too deeply"},
      {"{}", "Failed to get [migrate_to_ndvs], ptree_error: No such node (migrate_to_ndvs)"},
      {R"({"migrate_to_ndvs": "yes"})",
       "Failed to get [migrate_to_ndvs], ptree_error: conversion of data to type \"bool\" failed"},
      {R"({"migrate_to_ndvs": true})", "Failed to get [host_switches], ptree_error: No such node"},
      {R"({"migrate_to_ndvs": true, "host_switches": 1})",
       "Failed to get [host_switches], ptree_error: a list"},
      {WithSwitch(R"("vnics": [{}])"), "Failed to get [vnic_id], ptree_error: No such node (vnic_id)"},
      {WithSwitch(R"("pnics": [{}])"), "Failed to get [device_name], ptree_error:"},
      {WithSwitch(bad_vnic + R"("vtep_label": -1}])"), "Failed to get [vtep_label], ptree_error: conversion"},
      {WithSwitch(bad_vnic + R"("logical_switch_vlan_id": "4294967296"}])"),
       "Failed to get [logical_switch_vlan_id], ptree_error: conversion"},
      {WithSwitch(bad_vnic + R"("mac": "02:00:5g:00:00:01"}])"), "Failed to get [mac], ptree_error: ["},
      {WithSwitch(bad_vnic + R"("vlan_trunk_ranges": [{"start": 1}]}])"),
       "Failed to get [end], ptree_error:"},
      {WithSwitch(bad_vnic + R"("extra_configs": [{"key": "a"}]}])"),
       "Failed to get [config_pair], ptree_error:"},
      {WithSwitch(bad_vnic + R"("vif_id": {"a": 1}}])"), "Failed to get [vif_id], ptree_error: a text"},
      {WithSwitch(""), "Neither host_switch_id nor host_switch_name is given; one must be given"},
      {WithSwitch(R"("host_switch_name": "ks-9")"), "DVS [ks-9] is not found in HostConfigMsg"},
      {WithSwitch(s1 + R"(, "vnics": [{"vnic_id": "knl1"}])"),
       "Migrating vnic into a NDVS without PNICs is not allowed; NKLN ks-1"},
      {WithSwitch(s1 + pnics, false),
       "DVS or PLN name is not given by dvs_or_pln_name to migrate only PNICs out of NKLN ks-1"},
      {WithSwitch(R"("host_switch_name": "ks-1", "vnics": [{"vnic_id": "knl1"}])", false),
       "host_switch_id must be given to migrate knl/pnic out of DVS ks-1"},
  };
  for (const Case& c : cases) {
    HostConfigMsg config;
    EXPECT_THAT(Put(c.text, &config), HasSubstr(c.error)) << c.text;
  }
}

TEST(MigrationFileTest, MovesReplaceThoseOfTheStoredConfiguration) {
  HostConfigMsg config;
  ASSERT_EQ(
      Put(WithSwitch(std::string(R"("host_switch_id": ")") + kId + R"(", "mgmt_knl_ping_ip": "10.0.0.254",
      "pnics": [{"device_name": "knlnic1", "uplink_name": "uplink2"}],
      "vnics": [{"vnic_id": "knl1", "vif_id": "v1", "logical_switch_id": "ls1", "logical_port_id": "lp1",
                 "transport_zone_id": "z1", "logical_switch_vlan_id": 7, "group_id": "g", "init_state": "UNBLOCKED_VLAN",
                 "uplink_teaming_name": "t", "vlan_trunk_ranges": [{"start": 1, "end": 4}],
                 "extra_configs": [{"config_pair": {"key": "a", "value": "b"}}]}])"),
          &config),
      "");
  const std::string id = "50 2e 00 00 00 00 40 00-80 00 00 00 00 00 00 01";
  EXPECT_EQ(
      config.qub_if_migration().ShortDebugString(),
      "to_lswitches { device: \"knl1\" lswitch_id: \"ls1\" host_switch_id: \"" + id +
          "\" vif_id: \"v1\" logical_port_id: \"lp1\" is_vtep: false vlan_range { start: 1 end: 4 } "
          "extra_configs { key: \"a\" value: \"b\" } init_state: \"UNBLOCKED_VLAN\" transport_zone_id: "
          "\"z1\" vlan: 7 uplink_teaming_name: \"t\" port_group: \"g\" } knl_ping_ip { host_switch_id: \"" +
          id + "\" ping_ip: \"10.0.0.254\" }");
  ASSERT_EQ(config.host_switches(0).pnic_size(), 1);
  EXPECT_EQ(config.host_switches(0).pnic(0).device_name(), "knlnic1");

  ASSERT_EQ(Put(WithSwitch(std::string(R"("host_switch_id": ")") + id + R"(",
      "vnics": [{"vnic_id": "knl1", "port_group_name": "Management"}])",
                           false),
                &config),
            "");
  EXPECT_EQ(config.qub_if_migration().ShortDebugString(),
            "to_vsw_or_psw { device: \"knl1\" port_group: \"Management\" host_switch_id: \"" + id + "\" }");
  EXPECT_EQ(config.host_switches(0).pnic_size(), 0) << "none is to stay";

  ASSERT_EQ(Put(WithSwitch(R"("host_switch_id": "plain", "dvs_or_pln_name": "vSwitch0",
      "pnics": [{"device_name": "knlnic1"}])",
                           false),
                &config),
            "");
  EXPECT_EQ(config.qub_if_migration().ShortDebugString(),
            "to_vsw_or_psw { port_group: \"vSwitch0\" host_switch_id: \"plain\" }");

  ASSERT_EQ(Put(WithSwitch(R"("host_switch_id": "plain", "pnics": [{"device_name": "knlnic1"}])"), &config),
            "");
  EXPECT_EQ(config.qub_if_migration().ShortDebugString(), "to_lswitches { host_switch_id: \"plain\" }");

  // A switch without the list is not the same as a switch with an empty list of physical NICs.
  ASSERT_EQ(Put(WithSwitch(R"("host_switch_name": "ks-1")"), &config), "");
  EXPECT_EQ(config.host_switches(0).pnic_size(), 1);
  EXPECT_EQ(config.qub_if_migration().ByteSizeLong(), 0u);
}

// The host deletes an endpoint that is missing from the list right after its move.
TEST(MigrationFileTest, EndpointsOfTheFileTakeTheirPlaceInTheSwitch) {
  const auto vteps = [](const std::string& vnics) {
    HostConfigMsg config;
    EXPECT_EQ(
        Put(WithSwitch(R"("host_switch_name": "ks-1", "pnics": [{"device_name": "knlnic1"}], "vnics": [)" +
                       vnics + "]"),
            &config),
        "");
    std::string all;
    for (const auto& vtep : config.host_switches(0).vteps()) all += "{" + vtep.ShortDebugString() + "}";
    return all;
  };
  constexpr const char* kApplied = "{ipv4_address: \"10.0.0.1\" device_name: \"knl10\" state: 4}";
  constexpr const char* kKept = "{ipv4_address: \"10.0.0.1\" device_name: \"knl10\" state: 3}";
  const std::string known = R"({"vnic_id": "knl10", "is_vtep": true, "ip": "10.9.9.9"})";
  const std::string fresh =
      R"({"vnic_id": "knl11", "is_vtep": true, "mac": "02:00:00:00:00:0a", "ping_ip": "10.0.0.2"})";
  const std::string other = R"({"vnic_id": "knl12", "is_vtep": "true", "ip": "fd00::1", "vtep_label": 5})";
  constexpr const char* kFresh =
      "{ipv4_address: \"10.0.0.2\" device_name: \"knl11\" mac { value: 2199023255562 } state: 3}";
  constexpr const char* kOther = "{device_name: \"knl12\" state: 3 ipv6_address: \"fd00::1\"}";
  EXPECT_EQ(vteps(known), std::string(kKept) + "{state: 1}");
  EXPECT_EQ(vteps(fresh), std::string(kApplied) + kFresh);
  EXPECT_EQ(vteps(fresh + "," + other), std::string(kOther) + kFresh);
  EXPECT_EQ(vteps(known + "," + fresh), std::string(kKept) + kFresh);
  EXPECT_EQ(vteps(known + "," + fresh + "," + other), std::string(kKept) + kFresh + kOther);
  EXPECT_EQ(vteps(R"({"vnic_id": "knl13"})"),
            "{ipv4_address: \"10.0.0.1\" device_name: \"knl10\" state: 4}{state: 1}");
}

TEST(MigrationFileTest, AFileWithoutAnIdGetsOneAndKeepsTheRest) {
  VirtualClock clock;
  test::TempDir directory;
  struct Case {
    const char* before;
    const char* after;
    Read read;
  };
  for (const Case& c : {Case{" {\n \"migrate_to_ndvs\": true, \"host_switches\": [], \"x\": 1.50 }",
                             " {\"request_id\": \"1767225600\",\n \"migrate_to_ndvs\": true, "
                             "\"host_switches\": [], \"x\": 1.50 }",
                             Read::kDone},
                        Case{"{ }", "{\"request_id\": \"1767225600\" }", Read::kIncomplete},
                        Case{"{\"request_id\": 7}", "{\"request_id\": 7}", Read::kIncomplete},
                        Case{"{", "{", Read::kUnreadable}, Case{" \n", " \n", Read::kNone}}) {
    MigrationFile file(directory.Write("file", c.before));
    MigrationRequest request;
    std::string error;
    EXPECT_EQ(file.Load(&request, &error), c.read) << c.before;
    EXPECT_EQ(directory.Read("file"), c.after);
    // The next read finds the written id.
    MigrationRequest again;
    EXPECT_EQ(file.Load(&again, &error), c.read) << c.before;
    EXPECT_EQ(again.request_id, request.request_id);
  }
  MigrationRequest request;
  std::string error;
  EXPECT_EQ(MigrationFile(directory.Path("none")).Load(&request, &error), Read::kNone);
  MigrationFile large(directory.Write("large", std::string(MigrationFile::kLongest + 1, ' ')));
  EXPECT_EQ(large.Load(&request, &error), Read::kUnreadable);
  EXPECT_EQ(error, large.path() + " json_parser_error: File too large");
}

class VnicMigrationTaskTest : public ::testing::Test {
 protected:
  // The host's proxy is not ready, so the application ends there.
  void Run(bool vm_ports, bool knl_pnic) {
    VnicMigrationTask::Settings settings{
        knl_, vms_, result_,
        [this](VmPortMap& ports) {
          created_ += ports.size();
          return create_error_.empty() ? Outcome::Done() : Outcome::Failed(create_error_);
        },
        [this](std::shared_ptr<VmPortMap> ports) { kept_ = std::move(ports); }};
    VnicMigrationTask(context_, std::move(settings), vm_ports, knl_pnic).Run();
  }
  std::string Result() { return directory_.Read("result"); }

  test::TempDir directory_;
  const std::string knl_ = directory_.Path("knl");
  const std::string vms_ = directory_.Path("vms");
  const std::string result_ = directory_.Path("result");
  size_t created_ = 0;
  std::string create_error_;
  std::shared_ptr<VmPortMap> kept_;

  FakeLumCommands lum_;
  SwitchLibrary library_;
  EndpointLibrary endpoints_;
  RouterLibrary router_library_;
  HostIdentity host_;
  PortOpsManager ports_{library_, lum_, host_};
  ConfigOpsManager switches_{library_};
  RouterPorts routers_{router_library_};
  HighPerformanceProfile high_performance_{{}};
  MigrationRecord migration_;
  NoPublisher publisher_;
  HealthRecord health_{publisher_, false};
  OptionsStore options_;
  ConfigFiles files_{{directory_.Path("host_config.bin"), directory_.Path("mmode.bin")}};
  HostConfigState state_;
  NotedFollowUps follow_ups_;
  Synchronizable port_lock_;
  std::shared_ptr<HostConfigContext> context_ = std::make_shared<HostConfigContext>(HostConfigContext{
      lum_, library_, ports_, switches_, routers_, endpoints_, high_performance_, migration_, health_, host_,
      options_, files_, nullptr, state_, follow_ups_, [](Duration) { return true; }, port_lock_});
};

TEST_F(VnicMigrationTaskTest, PortsOfVmsAreMadeAndKeptForTheirVifs) {
  directory_.Write("vms", R"({"request_id": "r1", "migrate_to_ndvs": true, "host_switches": [{"vnics": [
      {"vnic_id": "uuid-1:4000", "vif_id": "v1", "logical_switch_id": "l1", "logical_port_id": "p1",
       "transport_zone_id": "z1", "logical_switch_vlan_id": 9},
      {"vnic_id": "uuid-1:4001", "vif_id": "v2", "logical_switch_id": "l1", "logical_port_id": "p2"},
      {"vnic_id": "uuid-1:4002"}, {"vnic_id": "uuid-1:4003", "is_vtep": true}, {"vnic_id": "knl0"}]}]})");
  const test::LogCapture log;
  Run(true, true);
  EXPECT_EQ(created_, 1u);
  ASSERT_EQ(kept_->size(), 1u);
  const VifRequest& port = *kept_->at("v1");
  EXPECT_EQ(port.ToString(),
            "opId:[  ] op:[ CORVD_ATTACH_PORT_TO_VIF_UUID( 8 )] vif:[v1] ls:[l1] gcf:[uuid-1:4000] lp:[p1]");
  EXPECT_EQ(port.spec->vlan, 9);
  EXPECT_EQ(port.spec->zone_id, "z1");
  EXPECT_FALSE(port.precreated);
  for (const char* line : {"vnic [uuid-1:4001] is ignored because its transport_zone_id is unset/empty",
                           "vnic [uuid-1:4002] is ignored because its vif_id is unset/empty",
                           "vnic [uuid-1:4003] is ignored because it is marked as a VTEP",
                           "vnic [knl0] is ignored because it is not a VM nic",
                           "Cached data of 1 VM VIF ports for 3 VM NICs", "is empty or does not exist"}) {
    EXPECT_TRUE(log.Contains(line)) << line;
  }
  EXPECT_THAT(Result(), HasSubstr("\"vms_request_id\": \"r1\""));
  EXPECT_THAT(Result(), HasSubstr("\"result\": \"Success\""));

  // A completed request is not carried out again until the tool makes another one.
  kept_.reset();
  Run(true, false);
  EXPECT_EQ(kept_, nullptr);
  EXPECT_TRUE(log.Contains("migration of VMs request-id r1 has already finished successfully."));
  directory_.Write("vms", R"({"request_id": "r2", "migrate_to_ndvs": false, "host_switches": [{"vnics": [
      {"vnic_id": "uuid-1:4000", "vif_id": "v1", "port_group_name": "VM Network"}]}]})");
  Run(true, false);
  EXPECT_EQ(created_, 1u) << "nothing is made on the way out";
  EXPECT_EQ(kept_->at("v1")->op_code, VifRequest::kDetach);
  EXPECT_TRUE(kept_->at("v1")->spec);
  EXPECT_THAT(Result(), HasSubstr("r2"));
}

// In "/tmp" any user can make the folder first, with a request in it, or with a link where the result goes.
TEST_F(VnicMigrationTaskTest, AFolderWhereOthersMayWriteIsNotTrusted) {
  namespace fs = std::filesystem;
  const fs::path folder(directory_.Path());
  directory_.Write("vms", R"({"request_id": "r1", "migrate_to_ndvs": false, "host_switches": [{"vnics": [
      {"vnic_id": "uuid-1:4000", "vif_id": "v1", "port_group_name": "VM Network"}]}]})");
  const std::string victim = directory_.Write("victim", "precious");
  fs::create_symlink(victim, result_ + ".tmp");
  const test::LogCapture log;
  fs::permissions(folder, fs::perms::all);
  Run(true, false);
  EXPECT_EQ(kept_, nullptr);
  EXPECT_TRUE(log.Contains("vms: others may write in its folder"));
  EXPECT_EQ(directory_.Read("victim"), "precious");
  EXPECT_FALSE(fs::exists(result_));

  fs::permissions(folder, fs::perms::owner_all);
  const fs::path link = folder / "link";
  fs::create_directory_symlink(folder, link);
  MigrationRequest request;
  std::string error;
  EXPECT_EQ(MigrationFile(link / "vms").Load(&request, &error), Read::kUnreadable);
  ASSERT_EQ(::chown(folder.c_str(), 65534, 65534), 0);
  EXPECT_EQ(MigrationFile(vms_).Load(&request, &error), Read::kUnreadable);
  ASSERT_EQ(::chown(folder.c_str(), ::geteuid(), ::getegid()), 0);
  fs::remove(result_ + ".tmp");
  Run(true, false);
  EXPECT_EQ(kept_->size(), 1u);
}

TEST_F(VnicMigrationTaskTest, AFailureIsWrittenToTheResultFileAndRetried) {
  directory_.Write("vms", R"({"request_id": "r1", "migrate_to_ndvs": true, "host_switches": [{"vnics": [
      {"vnic_id": "u:1", "vif_id": "v1", "logical_switch_id": "l", "logical_port_id": "p", "transport_zone_id": "z"}]}]})");
  directory_.Write("knl", R"({"request_id": "k1", "migrate_to_ndvs": true, "host_switches": [{}]})");
  create_error_ = "no such \"zone\"";
  Run(true, true);
  EXPECT_THAT(Result(), HasSubstr("\"request_id\": \"k1\""));
  // No configuration is stored yet, so there is none to change.
  EXPECT_THAT(Result(), HasSubstr(R"("Failed; error messages:\nno such \"zone\"\n)"));
  EXPECT_EQ(kept_->size(), 1u) << "those that could be made wait";

  HostConfigMsg stored = Stored();
  stored.clear_transport_node_id();
  ASSERT_EQ(files_.PersistHostConfigToFile(stored), 0);
  Run(false, true);
  EXPECT_THAT(Result(), HasSubstr("The stored HostConfigMsg names no transport node"));
  EXPECT_THAT(Result(), HasSubstr("\"vms_request_id\": \"r1\"")) << "of the file that was not looked at";

  ASSERT_EQ(files_.PersistHostConfigToFile(Stored()), 0);
  Run(false, true);
  EXPECT_THAT(Result(),
              HasSubstr(R"("Failed; error messages:\nNeither host_switch_id nor host_switch_name)"));

  directory_.Write("knl", R"({"request_id": "k1", "migrate_to_ndvs": true, "host_switches": [
      {"host_switch_name": "ks-1", "pnics": [{"device_name": "knlnic1"}], "vnics": [{"vnic_id": "knl1"}]}]})");
  Run(false, true);
  EXPECT_THAT(Result(), HasSubstr(R"("Failed; error messages:\nZEMA Lum not ready")"));

  create_error_.clear();
  Run(true, false);
  EXPECT_THAT(Result(), HasSubstr("\"result\": \"Success\"")) << "it had failed, so it is done again";
  EXPECT_EQ(created_, 2u);

  // The outcomes are separate: the VMs' success does not count for the interfaces, nor their next failure for
  // the VMs.
  Run(false, true);
  EXPECT_THAT(Result(), HasSubstr(R"("Failed; error messages:\nZEMA Lum not ready")"));
  Run(true, false);
  EXPECT_EQ(created_, 2u);
}

TEST_F(VnicMigrationTaskTest, AnUnreadableResultFileDoesNotPreventAMigration) {
  for (const char* result : {"{", "[]", "{\"result\": {\"a\": 1}}", "\xff"}) {
    directory_.Write("result", result);
    directory_.Write("vms", R"({"request_id": "r1", "migrate_to_ndvs": true, "host_switches": []})");
    Run(true, false);
    EXPECT_THAT(Result(), HasSubstr("Success")) << result;
  }
}

}  // namespace
}  // namespace zem::zema
