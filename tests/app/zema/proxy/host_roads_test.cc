// The agent's commands against the host that carries them out: each side must be able to read what the other
// writes.

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "app/zema/hostlib/switch_teaming.h"
#include "app/zema/hostlib/vtep_ha_profile.h"
#include "app/zema/hostswitch/dvs_configuration.h"
#include "app/zema/hostswitch/high_performance_profile.h"
#include "app/zema/hostswitch/host_switch_application.h"
#include "app/zema/hostswitch/host_switch_commands.h"
#include "app/zema/hostswitch/port_group_vms.h"
#include "app/zema/migration/interface_migration.h"
#include "app/zema/migration/migration_record.h"
#include "app/zema/proxy/error_sink.h"
#include "proto/switching/logical_switch.pb.h"
#include "proto/switching/switching.pb.h"
#include "sim/host/host_state.h"
#include "tests/app/zema/proxy/lum_sandbox.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr const char* kRoot = "/var/run/orlane/sim";
constexpr const char* kKln = "50 2e 11 22 33 44 55 66-77 88 99 aa bb cc dd 01";
constexpr const char* kNvs = "50 2e 11 22 33 44 55 66-77 88 99 aa bb cc dd 02";

class NoTepHa : public TepHaLibrary {
 public:
  int SetTEPHA(const std::string&, bool) override { return 0; }
  int SetTEPHAAutoRecover(const std::string&, bool) override { return 0; }
  int SetTEPHAAutoRecoverStartTime(const std::string&, uint32_t) override { return 0; }
  int SetTEPHAAutoRecoverBackoff(const std::string&, uint32_t) override { return 0; }
  int SetTEPHATimeout(const std::string&, uint32_t) override { return 0; }
};

void WriteProperty(const std::string& directory, const std::string& name, const std::string& text) {
  std::filesystem::create_directories(directory);
  std::ofstream(directory + "/" + name) << std::string("\x10\0\0\0", 4) << text << '\0';
}

// Does what the switch library does for the port of an interface.
Outcome CreatePort(const QubMgmtIfToLogicSwitchMsg& entry, const std::string&) {
  const std::string properties = std::string(kRoot) + "/switch/switches/" + entry.host_switch_id() +
                                 "/ports/" + entry.logical_port_id() + "/p";
  WriteProperty(properties, "com.orlane.port.extraConfig.vnic.external.id", entry.vif_id());
  WriteProperty(properties, "com.orlane.port.extraConfig.opaqueNetwork.id", entry.lswitch_id());
  return Outcome::Done();
}

HostConfigMsg Config(const std::string& text) {
  HostConfigMsg config;
  if (!google::protobuf::TextFormat::ParseFromString(text, &config)) std::abort();
  return config;
}

constexpr const char* kTwoSwitches = R"(
    phase: PHASE2_COMBINED
    host_switches { id: "502e1122-3344-5566-7788-99aabbccdd01" name: "ks-1" type: 2 mtu: 1600 overlay: true
                    transport_zone_id: "z1" pnic { device_name: "vmnic1" uplink_name: "up1" }
                    vteps { device_name: "knl11" } vteps { device_name: "knl10" } default_gateway: "10.0.0.1"
                    profiles { uplink_profile { active_uplink { name: "up1" } } } }
    host_switches { id: "502e1122-3344-5566-7788-99aabbccdd02" name: "ks-2" type: 1 mtu: 1500
                    transport_zone_id: "z2" pnic { device_name: "vmnic0" uplink_name: "up1" }
                    profiles { uplink_profile { active_uplink { name: "up1" } } } })";
constexpr const char* kMoveIn = R"(
    qub_if_migration { to_lswitches { device: "knl0" host_switch_id: "502e1122-3344-5566-7788-99aabbccdd02"
                                      vif_id: "v1" lswitch_id: "l1" logical_port_id: "p1" } })";
constexpr const char* kMoveOut = R"(
    qub_if_migration { to_vsw_or_psw { device: "knl0" host_switch_id: "502e1122-3344-5566-7788-99aabbccdd02"
                                       port_group: "Management Network" } })";

struct Agent {
  explicit Agent(LumSettings settings) : handler(std::move(settings)) {}

  bool Apply(HostConfigMsg* config) {
    InterfaceMigrationSettings migration_settings;
    migration_settings.create_port = CreatePort;
    InterfaceMigration migration(handler, errors, record, migration_settings);
    KnlMigrationMap map;
    bool migrate = true;
    if (!ConvertDvsUuidsAndPopulateKnlMigrationMap(config, &map, errors) ||
        !migration.PrepareAndMigrate(config, &map, &migrate, false)) {
      return false;
    }
    MigratedPnics pnics = MigratedPnicsOf(map);
    HighPerformanceProfile high_performance{HighPerformanceSettings()};
    HostSwitchApplicationSettings settings;
    settings.mode_standard_realization = "auto";
    settings.set_tz_to_dvs_cache = [](std::vector<TzDvs>) {};
    settings.configure_teaming = [](const std::string&, const SwitchTeaming&) { return Outcome::Done(); };
    settings.configure_named_teaming = [](const std::string&, const std::vector<SwitchTeaming>&) {
      return Outcome::Done();
    };
    settings.endpoint_id_of = [](const std::string&, const std::string& device) -> std::optional<uint32_t> {
      return device == "knl10" ? 1 : 2;
    };
    settings.allow_resync = [](bool) {};
    settings.schedule_high_performance = [] {};
    HostSwitchApplication application(handler, errors, migration, tep_ha, high_performance, settings);
    DvsConfigurationSettings dvs;
    dvs.apply = [&](const std::vector<std::string>& records) {
      return application.InvokeApplyHostSwitch(records, config, map, pnics, outcome);
    };
    return DvsConfiguration(handler, errors, dvs).ConfigureDvses(*config, &pnics) == 0;
  }

  LumHandler handler;
  ErrorSink errors;
  MigrationRecord record;
  VtepOutcome outcome;
  NoTepHa tep_ha;
};

std::string Text(const cJSON* at, std::initializer_list<const char*> path) {
  for (const char* name : path) at = cJSON_GetObjectItemCaseSensitive(at, name);
  const char* text = cJSON_GetStringValue(at);
  return text == nullptr ? std::string() : text;
}

using HostRoadsTest = test::LumSandbox;

// A configuration with an interface that moves in, the same one again as after a restart, and the move back.
TEST_F(HostRoadsTest, TheManagementInterfaceGoesInAndComesBack) {
  EXPECT_EQ(Run([](test::LogCapture& log, LumSettings settings, std::string*) {
              const sim::HostState host(kRoot);
              SANDBOX_EXPECT(std::system("python3 /run/zem-node/simstate.py init") == 0);
              host.Set("dhcp.polls", "1");
              Agent agent(settings);
              SANDBOX_EXPECT(agent.handler.SetUp("user", "") == 0);

              // Refused without the move: the physical NIC belongs to the management interface.
              HostConfigMsg config = Config(kTwoSwitches);
              SANDBOX_EXPECT(!agent.Apply(&config));
              SANDBOX_EXPECT(agent.errors.code() == ErrorSink::kPnicUsedByManagement);

              for (int i = 0; i < 2; ++i) {
                config = Config(std::string(kTwoSwitches) + kMoveIn);
                agent.errors = {};
                agent.outcome = {};
                SANDBOX_EXPECT(agent.Apply(&config));
                SANDBOX_EXPECT(agent.errors.texts().empty());
                const sim::Json now = host.Read();
                SANDBOX_EXPECT(Text(now.get(), {"interfaces", "knl0", "where", "switch"}) == kNvs);
                SANDBOX_EXPECT(Text(now.get(), {"interfaces", "knl0", "where", "port"}) == "p1");
                SANDBOX_EXPECT(Text(now.get(), {"pnics", "vmnic0", "owner", "switch"}) == kNvs);
                SANDBOX_EXPECT(Text(now.get(), {"pnics", "vmnic1", "owner", "switch"}) == kKln);
                // Endpoints without an address are still to be fetched; the message is in the order of the
                // ids.
                SANDBOX_EXPECT(agent.outcome.dhcp_devices == (std::vector<std::string>{"knl11", "knl10"}));
                SANDBOX_EXPECT(config.host_switches(0).vteps(0).device_name() == "knl10");
              }
              std::string out;
              SANDBOX_EXPECT(agent.handler.InvokeRPC(LumOperation::kReadEndpointAddresses,
                                                     "vtepDeviceId=knl10", &out) == 1);
              SANDBOX_EXPECT(out == "~~IpNotAssigned");
              SANDBOX_EXPECT(agent.handler.InvokeRPC(LumOperation::kReadEndpointAddresses,
                                                     "vtepDeviceId=knl10", &out) == 1);
              SANDBOX_EXPECT(out == "192.168.50.10~~IpAssigned");

              // The interface moves out again, with the physical NIC, which the configuration no longer has.
              config = Config(std::string(kTwoSwitches) + kMoveOut);
              config.mutable_host_switches(1)->clear_pnic();
              SANDBOX_EXPECT(agent.Apply(&config));
              SANDBOX_EXPECT(config.qub_if_migration().to_vsw_or_psw(0).previous_vif_id() == "v1");
              const sim::Json back = host.Read();
              SANDBOX_EXPECT(Text(back.get(), {"interfaces", "knl0", "where", "kind"}) == "standard");
              SANDBOX_EXPECT(Text(back.get(), {"pnics", "vmnic0", "owner", "switch"}) == "vSwitch0");
              SANDBOX_EXPECT(agent.handler.InvokeCommand(std::string("applyDvsList(|") + kKln + "," + kNvs +
                                                             "|reset=False|management|deleteTn=True)",
                                                         "0|ok", &out) == 0);
              SANDBOX_EXPECT(agent.handler.InvokeCommand("queryDvsListWithoutFlag()", "ok", &out) == 0);
              return 0;
            }),
            0);
}

TEST_F(HostRoadsTest, OpaqueNetworksAndBinaryCalls) {
  EXPECT_EQ(
      Run([](test::LogCapture& log, LumSettings settings, std::string*) {
        const sim::HostState host(kRoot);
        SANDBOX_EXPECT(std::system("python3 /run/zem-node/simstate.py init") == 0);
        host.Set("vms.vm1",
                 R"({"path": "/vm/1.cfg", "power": "on", "vnics": {"4000": {"portGroup": "dvportgroup-7",
                                      "vif": "v9", "port": "p9", "connected": true}}})");
        ErrorSink errors;
        LumHandler handler(settings);
        SANDBOX_EXPECT(handler.SetUp("user", "") == 0);
        std::string out;
        SANDBOX_EXPECT(
            handler.InvokeCommand("createOpaqueNetwork(uuid=u1|name=a, b|path=/p|zone=z|revision=3,"
                                  "uuid=u2|name=|path=|zone=|revision=1)",
                                  "ok", &out) == 0);
        SANDBOX_EXPECT(handler.InvokeCommand("deleteOpaqueNetwork(uuid=u2)", "ok", &out) == 0);
        sim::Json networks = host.Networks();
        SANDBOX_EXPECT(Text(networks.get(), {"u1", "name"}) == "a, b");
        SANDBOX_EXPECT(cJSON_GetArraySize(networks.get()) == 1);

        LogicalSwitchBulkMsg bulk;
        bulk.set_continuation_flag(0);
        auto& zone = *bulk.add_logical_switches_of_tz();
        zone.set_transport_zone_id("z2");
        for (int i = 0; i < 300; ++i) {
          auto& info = *zone.add_logical_switch_info();
          info.set_logical_switch_id("n" + std::to_string(i));
          info.set_revision(-i);
          info.set_name("name");
        }
        SANDBOX_EXPECT(
            handler.InvokeRPC(LumOperation::kApplyLogicalSwitches, bulk.SerializeAsString(), &out) == 1);
        networks = host.Networks();
        SANDBOX_EXPECT(cJSON_GetArraySize(networks.get()) == 300);
        SANDBOX_EXPECT(Text(networks.get(), {"n299", "zone"}) == "z2");
        SANDBOX_EXPECT(handler.InvokeRPC(LumOperation::kApplyLogicalSwitches, "\xff", &out) == 0);

        SANDBOX_EXPECT(HostSwitchCommands(handler, errors).UpdateTnIdToCorvd("tn-1"));
        SANDBOX_EXPECT(Text(host.Read().get(), {"transportNodeId"}) == "tn-1");
        HostConfigMsg config = Config(kTwoSwitches);
        SANDBOX_EXPECT(handler.InvokeRPC(LumOperation::kInstallPreCheck, config.SerializeAsString(), &out) ==
                       0);
        RetrieveVmsConnectedToDvpg(handler, &config);
        SANDBOX_EXPECT(config.vm_information_size() == 1);
        SANDBOX_EXPECT(config.vm_information(0).token(0) == "vm1");
        return 0;
      }),
      0);
}

// The script dies in the middle of a change, which may or may not have been made; the next configuration
// completes it.
TEST_F(HostRoadsTest, AScriptThatDiesInTheMiddle) {
  EXPECT_EQ(Run([](test::LogCapture& log, LumSettings settings, std::string*) {
              const sim::HostState host(kRoot);
              SANDBOX_EXPECT(std::system("python3 /run/zem-node/simstate.py init") == 0);
              Agent agent(settings);
              SANDBOX_EXPECT(agent.handler.SetUp("user", "") == 0);
              for (const char* command : {"applyDvses", "applyHostSwitchMode", "migrateToLS", "applyVtep",
                                          "GetGuestLaneKnl", "CreateGuestLaneInterface"}) {
                for (const char* action : {"exit", "die", "half-text"}) {
                  SANDBOX_EXPECT(std::system("rm -rf /var/run/orlane/sim/switch/*/*") == 0);
                  SANDBOX_EXPECT(std::system("python3 /run/zem-node/simstate.py init --force") == 0);
                  host.AddFault(std::string("^") + command + "\\(\t0\t1\t" + action);
                  HostConfigMsg config = Config(std::string(kTwoSwitches) + kMoveIn);
                  agent.errors = {};
                  SANDBOX_EXPECT(!agent.Apply(&config));
                  SANDBOX_EXPECT(agent.errors.code() == ErrorSink::kGeneral);
                  SANDBOX_EXPECT(host.Faults().empty());
                  // The next command starts the script again.
                  std::string out;
                  if (!agent.handler.connected()) agent.handler.InvokeCommand("fetchMMode()", "", &out);
                  config = Config(std::string(kTwoSwitches) + kMoveIn);
                  agent.errors = {};
                  SANDBOX_EXPECT(agent.Apply(&config));
                  const sim::Json now = host.Read();
                  SANDBOX_EXPECT(Text(now.get(), {"interfaces", "knl0", "where", "switch"}) == kNvs);
                  SANDBOX_EXPECT(Text(now.get(), {"pnics", "vmnic0", "owner", "switch"}) == kNvs);
                }
              }
              return 0;
            }),
            0);
}

}  // namespace
}  // namespace zem::zema
