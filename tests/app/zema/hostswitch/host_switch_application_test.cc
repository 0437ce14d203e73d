// The switches of one configuration: the order of the steps, the steps that a failure skips, and the
// profiles.

#include "app/zema/hostswitch/host_switch_application.h"

#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include "app/zema/hostlib/switch_teaming.h"
#include "app/zema/hostlib/vtep_ha_profile.h"
#include "app/zema/hostswitch/dvs_config_info.h"
#include "app/zema/hostswitch/high_performance_profile.h"
#include "app/zema/migration/interface_migration.h"
#include "app/zema/migration/migration_record.h"
#include "app/zema/proxy/error_sink.h"
#include "proto/switching/switching.pb.h"
#include "tests/app/zema/proxy/fake_lum_commands.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::HostConfigMsg;
using orlane::zem::switching::HostSwitchMsg;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using Texts = std::vector<std::string>;

template <typename Message>
Message Parse(const std::string& text) {
  Message message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
  return message;
}

class FakeTepHa : public TepHaLibrary {
 public:
  int SetTEPHA(const std::string& dvs, bool enabled) override { return Take("ha", dvs, enabled); }
  int SetTEPHAAutoRecover(const std::string& dvs, bool enabled) override {
    return Take("auto", dvs, enabled);
  }
  int SetTEPHAAutoRecoverStartTime(const std::string& dvs, uint32_t seconds) override {
    return Take("start", dvs, seconds);
  }
  int SetTEPHAAutoRecoverBackoff(const std::string& dvs, uint32_t seconds) override {
    return Take("backoff", dvs, seconds);
  }
  int SetTEPHATimeout(const std::string& dvs, uint32_t seconds) override {
    return Take("timeout", dvs, seconds);
  }

  Texts calls;
  std::string failing;
  int code = 0;

 private:
  int Take(const std::string& name, const std::string& dvs, uint32_t value) {
    calls.push_back(name + " " + dvs + " " + std::to_string(value));
    return name == failing ? code : 0;
  }
};

constexpr const char* kHaProfile = R"(id: "s1" name: "one" profiles { vtep_ha_profile {
    enabled: true auto_recovery: false start_time: 11 backoff_time: 12 timeout: 13 } })";

// The first refusal ends the application, and the text contains the library's reason.
TEST(VtepHaProfileTest, StopsAtTheFirstRefusal) {
  const struct {
    std::string failing;
    int code;
    size_t calls;
    std::string text;
  } rows[] = {
      {"", 0, 5, ""},
      {"ha", 2, 1, "Setting TEPHA failed with code 2 : KLN not found., on dvs s1"},
      {"auto", 22, 2,
       "Setting autoRecovery for TEPHA failed with code 22 : VTEP not in proper state to perform requested "
       "operation., on dvs s1"},
      {"start", 14, 3,
       "Setting AutoRecoverStartTime for TEPHA failed with code 14 : Given time range is not proper., on dvs "
       "s1"},
      {"backoff", 36, 4,
       "Setting AutoRecoverBackoffTime for TEPHA failed with code 36 : VTEP not found under KLN., on dvs s1"},
      {"timeout", 38, 5,
       "Setting Timeout for TEPHA failed with code 38 : None or only one healthy VTEP exists. Cannot perform "
       "requested operation in current system state., on dvs s1"},
      {"timeout", 105, 5,
       "Setting Timeout for TEPHA failed with code 105 : Internal error occured while performing requested "
       "operation., on dvs s1"},
      {"timeout", 1, 5, "Setting Timeout for TEPHA failed with code 1 : Generic error occured., on dvs s1"},
  };
  const auto host_switch = Parse<HostSwitchMsg>(kHaProfile);
  const Texts all = {"ha s1 1", "auto s1 0", "start s1 11", "backoff s1 12", "timeout s1 13"};
  for (const auto& row : rows) {
    FakeTepHa library;
    library.failing = row.failing;
    library.code = row.code;
    std::string error;
    EXPECT_EQ(ProcessVtepHAProfile(library, host_switch, &error), row.text.empty());
    EXPECT_EQ(error, row.text);
    EXPECT_EQ(library.calls, Texts(all.begin(), all.begin() + static_cast<long>(row.calls)));
  }
  FakeTepHa library;
  std::string error;
  EXPECT_TRUE(ProcessVtepHAProfile(library, Parse<HostSwitchMsg>("id: \"s1\" profiles {}"), &error));
  EXPECT_THAT(library.calls, IsEmpty());
}

struct HighPerformance {
  HighPerformance() {
    settings.has_host_prop = [this](const std::string&, const std::string& property) {
      return property == kPendingUserActions && has;
    };
    settings.set_host_prop = [this](const std::string& dvs, const std::string& property,
                                    const std::string& value) {
      calls.push_back("set " + dvs + " " + property + " " + value);
      return result;
    };
    settings.clear_host_prop = [this](const std::string& dvs, const std::string& property) {
      calls.push_back("clear " + dvs + " " + property);
      return result;
    };
    settings.run = [this](const std::string& command, std::string* output) {
      calls.push_back(command);
      *output = "a=b";
      return code;
    };
  }
  bool has = false;
  uint32_t result = 0;
  int code = 0;
  Texts calls;
  HighPerformanceSettings settings;
};

TEST(HighPerformanceProfileTest, ResultsOfTheScript) {
  const std::string script = "python3 /usr/lib/orlane/high-performance-dp/hp_dp_script.py -d one 2>&1";
  const std::string clear = "clear s1 com.orlane.zem.pendingUserActions";
  const std::string set = "set s1 com.orlane.zem.pendingUserActions maintenance_mode";
  const std::string failed = "Setting high performance parameters on datapath failed with error code ";
  const struct {
    int code;
    bool has;
    uint32_t result;
    Texts calls;
    std::string text;
    bool pending;
  } rows[] = {
      {0, false, 0, {script}, "", false},
      {0, true, 0, {script, clear}, "", false},
      {0, true, 7, {script, clear}, "", false},
      {1, false, 0, {script, set}, "", true},
      {1,
       false,
       7,
       {script, set},
       "Failed to set pending actions property [com.orlane.zem.pendingUserActions] on dvs. Please resync.",
       true},
      {2,
       false,
       0,
       {script},
       failed + "2 for dvs one.Reason : auto_config value 1 is not supported for QUBi version < 7.0.3 . "
                "Please provide "
                "correct configuration and retry.",
       false},
      {100,
       false,
       0,
       {script},
       failed + "100 for dvs one.Reason : High performance configuration parameters a=b have incorrect "
                "key/value. Please "
                "provide correct configuration parameters and try again.",
       false},
      {101,
       false,
       0,
       {script},
       failed + "101 for dvs one.Reason : Failed to apply high performance configuration parameters for high "
                "performance "
                "configuration type : a=b",
       false},
      {102,
       false,
       0,
       {script},
       failed + "102 for dvs one.Reason :  Error while reading system configurations while applying high "
                "performance "
                "configuration parameters.",
       false},
      {-1,
       false,
       0,
       {script},
       failed + "-1 for dvs one.Reason :  Failure received while configuring high configuration parameters "
                "on datapath.",
       false},
  };
  const auto host_switch =
      Parse<HostSwitchMsg>(R"(id: "s1" name: "one" profiles { high_performance_profile {} })");
  for (const auto& row : rows) {
    HighPerformance h;
    h.code = row.code;
    h.has = row.has;
    h.result = row.result;
    HighPerformanceProfile profile(h.settings);
    Texts errors;
    bool pending = false;
    EXPECT_EQ(profile.ProcessHighPerformanceProfile(host_switch, &errors, &pending), row.text.empty());
    EXPECT_EQ(h.calls, row.calls) << row.code;
    EXPECT_EQ(errors, row.text.empty() ? Texts{} : Texts{row.text});
    EXPECT_EQ(pending, row.pending);
  }
}

// The switch's name comes from outside and is passed to a shell.
TEST(HighPerformanceProfileTest, ANameIsQuotedForTheShell) {
  HighPerformance h;
  HighPerformanceProfile profile(h.settings);
  HostSwitchMsg host_switch = Parse<HostSwitchMsg>("profiles { high_performance_profile {} }");
  Texts errors;
  bool pending = false;
  host_switch.set_name("a'b; rm $x");
  EXPECT_TRUE(profile.ProcessHighPerformanceProfile(host_switch, &errors, &pending));
  EXPECT_THAT(h.calls, ElementsAre(HasSubstr(R"( -d 'a'\''b; rm $x' 2>&1)")));
}

TEST(DvsConfigInfoTest, LinkAggregationGroupsStandForTheirUplinks) {
  const TeamingReader teaming = [](const std::string& dvs, uint32_t* type,
                                   std::vector<std::string>* uplinks) {
    *type = 2;
    *uplinks = {"up1"};
    return dvs != "s3" ? Outcome::Done() : Outcome::Failed("no teaming of " + dvs);
  };
  const LacpNamesReader lacp = [](const std::string& dvs, std::vector<std::string>* names) {
    if (dvs == "s2") *names = {"lag1"};
    return Outcome::Done();
  };
  std::vector<DvsConfigInfo> infos;
  std::string error;
  EXPECT_FALSE(GetDvsConfigInfo({{"s1", "a"}, {"s2", "b"}, {"s3", "c"}}, teaming, lacp, &infos, &error));
  EXPECT_EQ(error, "no teaming of s3");
  EXPECT_THAT(infos, ElementsAre(DvsConfigInfo{"s1", 2, {"up1"}}, DvsConfigInfo{"s2", 2, {"lag1"}}));
}

// Two switches; interfaces move into the second one.
struct Application {
  Application() {
    settings.set_tz_to_dvs_cache = [this](std::vector<TzDvs> list) {
      for (const TzDvs& entry : list) steps.push_back("zone " + entry.zone + " " + entry.kind);
    };
    settings.configure_teaming = [this](const std::string& dvs, const SwitchTeaming& teaming) {
      steps.push_back("teaming " + dvs + " " + std::to_string(teaming.policy));
      return teaming_error.empty() ? Outcome::Done() : Outcome::Failed(teaming_error);
    };
    settings.configure_named_teaming = [this](const std::string& dvs,
                                              const std::vector<SwitchTeaming>& teamings) {
      steps.push_back("named " + dvs + " " + std::to_string(teamings.size()));
      return Outcome::Done();
    };
    settings.endpoint_id_of = [](const std::string&, const std::string&) {
      return std::optional<uint32_t>(1);
    };
    settings.allow_resync = [this](bool allowed) { steps.push_back(allowed ? "resync" : "no resync"); };
    settings.schedule_high_performance = [this] { steps.push_back("schedule"); };
    settings.mode_standard_realization = "pktHandle";
    lum.Script("GetGuestLaneKnl(s1)", {"found"});
    lum.Script("GetGuestLaneKnl(s2)", {"notFound"});
    lum.Script(kVtep1, {"ok|~ok|~ok|~ok|~ok|knl5~10.0.0.5~~ok~5"});
    lum.Script(kVtep2, {"ok|~ok|~ok|~ok|~ok"});
    migration_settings.create_port = [](const auto&, const std::string&) { return Outcome::Done(); };
  }

  static constexpr const char* kVtep1 =
      "applyVtep(uuid=s1|defaultGateway=|subnetMask=|ipv6DefaultGateway=|ipv6PrefixLength=|vlan=|mtu=|dhcp=0|"
      "ipv6Dhcp=0|ipv6AutoConf=0|vtep=knl5~10.0.0.5~~~|vtepsMigrated=|upgrade=false)";
  static constexpr const char* kVtep2 =
      "applyVtep(uuid=s2|defaultGateway=|subnetMask=|ipv6DefaultGateway=|ipv6PrefixLength=|vlan=|mtu=|dhcp=1|"
      "ipv6Dhcp=0|ipv6AutoConf=0|vtep=|vtepsMigrated=|upgrade=false)";
  static constexpr const char* kMigrate =
      "migrateToLS(dvsUuid=s2|opId=migrate-knl-and-pnic-to-logical-switch0|pnicUplinkPairList=vmnic2,up1|"
      "knlPingTryTimes=4|knlToLs=knl0,v1,l1,not_vtep,)";

  bool Run() {
    InterfaceMigration interfaces(lum, errors, record, migration_settings);
    HighPerformanceProfile profile(high_performance.settings);
    HostSwitchApplication application(lum, errors, interfaces, tep_ha, profile, settings);
    KnlMigrationMap map;
    auto& entry = *config.mutable_qub_if_migration()->mutable_to_lswitches(0);
    map["s2"].to_logical_switch.push_back(&entry);
    return application.InvokeApplyHostSwitch({"r"}, &config, map, {{"s2", {"vmnic2~up1"}}}, outcome);
  }

  HostConfigMsg config = Parse<HostConfigMsg>(R"(
      host_switches { id: "s1" name: "one" type: 2 transport_zone_id: "z1" static_address: true
                      vteps { device_name: "knl5" ipv4_address: "10.0.0.5" }
                      profiles { vtep_ha_profile { enabled: true } high_performance_profile {}
                                 uplink_profile { teaming_policy: TEAMING_POLICY_1 } } }
      host_switches { id: "s2" name: "two" transport_zone_id: "z2"
                      profiles { named_uplink_profile { name: "n" } } }
      qub_if_migration { to_lswitches { device: "knl0" vif_id: "v1" lswitch_id: "l1" host_switch_id: "s2" } })");
  FakeLumCommands lum;
  ErrorSink errors;
  MigrationRecord record;
  FakeTepHa tep_ha;
  HighPerformance high_performance;
  InterfaceMigrationSettings migration_settings;
  HostSwitchApplicationSettings settings;
  VtepOutcome outcome;
  std::string teaming_error;
  Texts steps;
};

TEST(HostSwitchApplicationTest, TheOrderOfTheSteps) {
  Application a;
  EXPECT_TRUE(a.Run());
  EXPECT_THAT(a.errors.texts(), IsEmpty());
  EXPECT_THAT(a.steps, ElementsAre("no resync", "zone z1 KLN", "zone z2 NVS", "teaming s1 1", "named s1 0",
                                   "teaming s2 0", "named s2 1", "resync", "schedule"));
  EXPECT_THAT(a.lum.commands, ElementsAre("querySecurityEnabledNonCklnList()", "applyDvses(r)",
                                          "applyHostSwitchMode(s1|false)", Application::kVtep1,
                                          "GetGuestLaneKnl(s1)", "applyHostSwitchMode(s2|false)",
                                          Application::kMigrate, Application::kVtep2, "GetGuestLaneKnl(s2)"));
  EXPECT_EQ(a.tep_ha.calls.size(), 5U);
  EXPECT_EQ(a.high_performance.calls.size(), 1U);
}

// Whichever step fails, the resync is allowed again and the other switch is configured.
TEST(HostSwitchApplicationTest, Failures) {
  {
    Application a;
    a.lum.Script("applyDvses(r)", {"no"});
    EXPECT_FALSE(a.Run());
    EXPECT_THAT(a.steps, ElementsAre("no resync", "resync"));
    EXPECT_EQ(a.lum.commands.size(), 2U);
  }
  {
    Application a;
    a.teaming_error = "no teaming";
    a.lum.Script(Application::kVtep1, {"no"});
    a.lum.Script(Application::kMigrate, {"no way"});
    a.tep_ha.failing = "ha";
    a.tep_ha.code = 2;
    a.high_performance.code = 102;
    EXPECT_FALSE(a.Run());
    EXPECT_THAT(
        a.errors.texts(),
        ElementsAre("no teaming", "no teaming", "VTEP apply operation failed: [no]",
                    "Setting TEPHA failed with code 2 : KLN not found., on dvs s1",
                    "Failed sending the VTEP_HA Params to DataPath on dvs",
                    HasSubstr("Setting high performance parameters on datapath failed with error code 102"),
                    "MigrateToLS(s2) failed: [no way]"));
    EXPECT_EQ(a.errors.code(), 8700U);
    // The move failed: the only further command for this switch asks which interfaces moved after all.
    EXPECT_EQ(a.lum.commands.end()[-2], Application::kMigrate);
  }
}

}  // namespace
}  // namespace zem::zema
