// The commands that go to the host for a switch, and the errors that the manager gets when one of them fails.

#include "app/zema/hostswitch/host_switch_commands.h"

#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include "app/zema/hostswitch/dvs_configuration.h"
#include "app/zema/proxy/error_sink.h"
#include "app/zema/proxy/host_switch_lists.h"
#include "proto/switching/switching.pb.h"
#include "tests/app/zema/proxy/fake_lum_commands.h"

namespace zem::zema {
namespace {

using namespace std::chrono_literals;
using orlane::zem::switching::HostConfigMsg;
using orlane::zem::switching::HostSwitchMsg;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

using Commands = std::vector<std::string>;

template <typename Message>
Message Parse(const std::string& text) {
  Message message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
  return message;
}

TEST(HostSwitchListsTest, KeepsTheSwitchesThatRun) {
  const DvsStatusOf status = [](const std::string& id) -> std::optional<std::string> {
    if (id == "a a") return "up";
    if (id == "b b") return "down";
    return id == "c c" ? std::optional<std::string>("starting") : std::nullopt;
  };
  FakeLumCommands lum;
  lum.Script("queryDvsListWithoutFlag()", {"ok|a a,b b,c c,d d"});
  lum.Script("queryDvsNames(a a)", {"ok|one"});
  lum.Script("queryDvsNames(a a,b b)", {"ok|one,"});
  std::string error;
  EXPECT_THAT(GetDvsUuids(lum, false, status, &error).value(), ElementsAre(HostDvs{"a a", "one"}));
  EXPECT_THAT(GetDvsUuids(lum, true, status, &error).value(),
              ElementsAre(HostDvs{"a a", "one"}, HostDvs{"b b", ""}));
  lum.Script("queryDvsNames(a a)", {"ok|one,two"});
  EXPECT_FALSE(GetDvsUuids(lum, false, status, &error));
  EXPECT_EQ(error, "queryDvsNames(a a) failed: [2 names for 1 switches]");
  lum.Script("queryDvsListWithoutFlag()", {"socket read failed"});
  EXPECT_FALSE(GetDvsUuids(lum, false, status, &error));
  EXPECT_EQ(error, "queryDvsListWithoutFlag() failed: [socket read failed]");
}

TEST(HostSwitchCommandsTest, ApplyHostSwitches) {
  const struct {
    std::string security;
    std::string reply;
    uint32_t code;
    std::string text;
  } rows[] = {
      {"ok", "ok", 0, ""},
      {"ok", "no", 8700, "host switch apply operation failed: [no]"},
      {"ok", "x zem.PnicUsedByMgmtInterfaceException-ApplyDvs(vmnic0)", 8701,
       "host switch apply operation failed: [x zem.PnicUsedByMgmtInterfaceException-ApplyDvs(vmnic0)]"},
      {"ok|a", "ok", 8700, "Found security-only non-CKLN on the host."},
      {"bad", "ok", 8700, "querySecurityEnabledNonCklnList() failed: [bad]"},
  };
  for (const auto& row : rows) {
    FakeLumCommands lum;
    ErrorSink errors;
    lum.Script("querySecurityEnabledNonCklnList()", {row.security});
    lum.Script("applyDvses(r1;r2)", {row.reply});
    EXPECT_EQ(HostSwitchCommands(lum, errors).ApplyHostSwitches({"r1", "r2"}), row.code == 0);
    EXPECT_EQ(errors.code(), row.code);
    EXPECT_EQ(errors.texts(), row.code == 0 ? Commands{} : Commands{row.text});
    EXPECT_EQ(lum.commands.size(), row.security == "ok" ? 2U : 1U);
  }
  FakeLumCommands lum;
  ErrorSink errors;
  EXPECT_TRUE(HostSwitchCommands(lum, errors).ApplyHostSwitches({}));
  EXPECT_THAT(lum.commands, IsEmpty());
}

TEST(HostSwitchCommandsTest, Mode) {
  constexpr const char* kVersion = "IsQUBiVersionGreaterThanEqual80()";
  const struct {
    const char* message;
    const char* option;
    const char* version;
    Commands commands;
  } rows[] = {
      {"id: 'i'", "auto", "ok", {"applyHostSwitchMode(i|false)"}},
      {"id: 'i' snic_offload: true", "auto", "ok", {"applyHostSwitchMode(i|false)"}},
      {"id: 'i' switch_mode: STANDARD", "auto", "ok", {kVersion, "applyHostSwitchMode(i|intr)"}},
      {"id: 'i' switch_mode: STANDARD", "auto", "no", {kVersion, "applyHostSwitchMode(i|false)"}},
      {"id: 'i' switch_mode: STANDARD snic_offload: true",
       "auto",
       "no",
       {kVersion, "applyHostSwitchMode(i|intr)"}},
      {"id: 'i' switch_mode: STANDARD", "pktHandle", "ok", {"applyHostSwitchMode(i|false)"}},
      {"id: 'i' switch_mode: STANDARD", "ens-intr", "no", {"applyHostSwitchMode(i|intr)"}},
      {"id: 'i' switch_mode: ENS_INTERRUPT cpu_config { first: 1 }",
       "pktHandle",
       "ok",
       {"applyHostSwitchMode(i|intr)"}},
      {"id: 'i' switch_mode: PKT_HANDLE snic_offload: true",
       "ens-intr",
       "ok",
       {"applyHostSwitchMode(i|false)"}},
      {"id: 'i' switch_mode: ENS", "auto", "ok", {"applyHostSwitchMode(i|true)"}},
      {"id: 'i' switch_mode: ENS cpu_config { first: 1 second: 2 } cpu_config { first: 3 second: 4 }",
       "auto",
       "ok",
       {"applyHostSwitchCpuConfig(i|1~2,3~4)", "applyHostSwitchMode(i|true)"}},
  };
  for (const auto& row : rows) {
    FakeLumCommands lum;
    ErrorSink errors;
    lum.Script(kVersion, {row.version});
    EXPECT_TRUE(
        HostSwitchCommands(lum, errors).ApplyHostSwitchMode(Parse<HostSwitchMsg>(row.message), row.option));
    EXPECT_EQ(lum.commands, row.commands) << row.message;
    EXPECT_EQ(errors.code(), 0U);
  }
}

TEST(HostSwitchCommandsTest, ModeFailures) {
  FakeLumCommands lum;
  ErrorSink errors;
  lum.Script("applyHostSwitchCpuConfig(i|1~2)", {"busy"});
  lum.Script("applyHostSwitchMode(i|true)", {"ok", "late"});
  const auto message =
      Parse<HostSwitchMsg>("id: 'i' name: 'n' switch_mode: ENS cpu_config { first: 1 second: 2 }");
  HostSwitchCommands commands(lum, errors);
  EXPECT_FALSE(commands.ApplyHostSwitchMode(message, "auto"));
  EXPECT_FALSE(commands.ApplyHostSwitchMode(message, "auto"));
  EXPECT_THAT(errors.texts(), ElementsAre("ApplyHostSwitchCpuConfig to [n] failed : busy. ",
                                          "ApplyHostSwitchCpuConfig to [n] failed : busy. ",
                                          "ApplyHostSwitchMode to [n] failed : late. "));
  EXPECT_EQ(errors.code(), 8700U);
}

TEST(HostSwitchCommandsTest, GuestLaneFollowsTheEndpoints) {
  const struct {
    bool endpoints;
    const char* reply;
    const char* second;  // null: none
    const char* error;   // null: none
  } rows[] = {
      {true, "notFound", "CreateGuestLaneInterface(i)", nullptr},
      {true, "found", nullptr, nullptr},
      {false, "found", "DeleteGuestLaneInterface(i)", nullptr},
      {false, "notFound", nullptr, nullptr},
      {true, "what", nullptr, "GetGuestLaneKnl to [n] failed : what. "},
      {false, "found", "DeleteGuestLaneInterface(i)", "DeleteGuestLaneInterface to [n] failed : in use. "},
  };
  for (const auto& row : rows) {
    FakeLumCommands lum;
    ErrorSink errors;
    lum.Script("GetGuestLaneKnl(i)", {row.reply});
    if (row.error != nullptr && row.second != nullptr) lum.Script(row.second, {"in use"});
    auto message = Parse<HostSwitchMsg>("id: 'i' name: 'n'");
    if (row.endpoints) message.add_vteps();
    EXPECT_EQ(HostSwitchCommands(lum, errors).ApplyGuestLane(message), row.error == nullptr);
    Commands expected{"GetGuestLaneKnl(i)"};
    if (row.second != nullptr) expected.push_back(row.second);
    EXPECT_EQ(lum.commands, expected);
    EXPECT_EQ(errors.texts(), row.error == nullptr ? Commands{} : Commands{row.error});
  }
}

TEST(HostSwitchCommandsTest, GuestLaneInterfaceAndNodeId) {
  FakeLumCommands lum;
  ErrorSink errors;
  HostSwitchCommands commands(lum, errors);
  EXPECT_TRUE(commands.AddGuestLaneInterface("knl9", "169.254.1.1", "255.255.0.0"));
  EXPECT_TRUE(commands.UpdateTnIdToCorvd("tn"));
  EXPECT_EQ(errors.code(), 0U);
  EXPECT_THAT(lum.commands,
              ElementsAre("AddGuestLaneInterface(deviceName=knl9|ipAddress=169.254.1.1|netMask=255.255.0.0)",
                          "15:tn"));
  lum.Script("AddGuestLaneInterface(deviceName=|ipAddress=|netMask=)", {"no"});
  lum.rpc_status = 0;
  EXPECT_FALSE(commands.UpdateTnIdToCorvd("tn"));
  EXPECT_FALSE(commands.AddGuestLaneInterface("", "", ""));
  EXPECT_EQ(errors.code(), 8702U);
  EXPECT_THAT(errors.texts(), ElementsAre("Failed to update transport node id to corvd.",
                                          "Failed to create GuestLane interface. no"));
}

class DvsConfigurationTest : public ::testing::Test {
 protected:
  int Configure(const std::string& config, bool stateless = true) {
    lum_.commands.clear();
    errors_ = {};
    applied_.clear();
    waited_ = 0s;
    MigratedPnics migrated;
    DvsConfigurationSettings settings;
    settings.stateless = stateless;
    settings.migrate_nvs_knls = migrate_;
    settings.ready_timeout = 10s;
    settings.pause = [this](Duration duration) {
      waited_ += duration;
      return !stopping_;
    };
    settings.apply = [this](const std::vector<std::string>& records) {
      applied_ = records;
      return apply_;
    };
    return DvsConfiguration(lum_, errors_, std::move(settings))
        .ConfigureDvses(Parse<HostConfigMsg>(config), &migrated);
  }

  FakeLumCommands lum_;
  ErrorSink errors_;
  bool migrate_ = false;
  bool apply_ = true;
  bool stopping_ = false;
  Commands applied_;
  Duration waited_{};
};

constexpr const char* kTwoSwitches =
    "phase: PHASE2_COMBINED host_switches { id: 'a' } host_switches { id: 'b' }";
constexpr const char* kPost = "PostZemInstallSuccessEvent()";
constexpr const char* kOpaqueFlag = "CheckAndClearZemInstallOpaqueSwitchStatusFlag()";
constexpr const char* kInstallFlag = "CheckAndClearZemInstallStatusFlag()";
constexpr const char* kRequired = "IsZemDvsConfigRequiredSet()";
constexpr const char* kReady = "IsDvsReadySet()";
constexpr const char* kClear = "ClearStatelessQubDvsFlags()";

TEST_F(DvsConfigurationTest, AnOrdinaryHostAppliesAtOnce) {
  EXPECT_EQ(Configure("host_switches { id: 'a' }", false), 0);
  EXPECT_THAT(applied_, ElementsAre(StartsWith("a|")));
  EXPECT_THAT(lum_.commands, IsEmpty());
  EXPECT_EQ(Configure("host_switches { id: 'a;b' }", false), -1);
  EXPECT_THAT(errors_.texts(), ElementsAre("switch id [a;b] must not contain ';'"));
  EXPECT_THAT(applied_, IsEmpty());
  for (const bool stateless : {false, true}) {
    EXPECT_EQ(Configure("phase: PHASE1_PARTIAL host_switches { id: 'a' }", stateless), 0);
    EXPECT_THAT(applied_, IsEmpty());
    EXPECT_THAT(lum_.commands, IsEmpty());
  }
  apply_ = false;
  EXPECT_EQ(Configure("host_switches { id: 'a' }", false), -1);
}

TEST_F(DvsConfigurationTest, AStatelessHostWaitsForItsProfile) {
  lum_.Script(kReady, {"notset", "notset", "ok"});
  EXPECT_EQ(Configure(kTwoSwitches), 0);
  EXPECT_THAT(lum_.commands, ElementsAre(kPost, kOpaqueFlag, kRequired, kReady, kReady, kReady, kClear));
  EXPECT_EQ(waited_, 10s);
  EXPECT_EQ(applied_.size(), 2U);
  EXPECT_EQ(Configure("qub_if_migration {}"), 0);
  EXPECT_THAT(lum_.commands, ElementsAre(kPost, kOpaqueFlag));
  migrate_ = true;
  EXPECT_EQ(Configure("qub_if_migration {}"), 0);
  EXPECT_THAT(lum_.commands, ElementsAre(kPost, kOpaqueFlag, kInstallFlag));
  EXPECT_EQ(Configure(""), 0);
  EXPECT_THAT(lum_.commands, ElementsAre(kPost, kOpaqueFlag));
  // The flags that the host needs for another attempt must not be cleared.
  apply_ = false;
  EXPECT_EQ(Configure(kTwoSwitches), -1);
  EXPECT_THAT(lum_.commands, Not(Contains(kClear)));
}

TEST_F(DvsConfigurationTest, NothingIsAppliedBeforeTheProfile) {
  const struct {
    const char* command;
    const char* config;
    const char* text;
  } rows[] = {
      {kPost, kTwoSwitches,
       "Could not post ZemInstallSuccess event to corvd. Please check Stateless host config and reboot host. "
       "error [bad]. "},
      {kOpaqueFlag, kTwoSwitches,
       "Could not clear ZemInstallOpaqueSwitchStatus flag. Please check Stateless host config and reboot "
       "host. error [bad]. "},
      {kInstallFlag, "qub_if_migration {}",
       "Could not clear ZemInstallStatus flag. Please check Stateless host config and reboot host. error "
       "[bad]. "},
      {"", "host_switches { id: 'a' }",
       "Failed to configure host in HostConfigMsg phase. Please update Manager TransportNodeProfile, "
       "Peakhall "
       "Cluster Host Profile and reboot host."},
      {kRequired, kTwoSwitches,
       "Manager TransportNodeProfile configuration does not match Host Profile applied to Peakhall cluster "
       "this host is part of. TransportNodeProfile has KLN configuration but Host Profile applied does not "
       "have it. Please update Manager TransportNodeProfile, Peakhall Cluster Host Profile and reboot host."},
      {kReady, kTwoSwitches,
       "Manager TransportNodeProfile configuration does not match Host Profile applied to Peakhall cluster "
       "this host is part of. TransportNodeProfile has KLN configuration but HostProfileEngine did not "
       "create "
       "KLN on host post reboot before timeout. Please update Manager TransportNodeProfile, Peakhall Cluster "
       "Host Profile and reboot host."},
  };
  migrate_ = true;
  for (const auto& row : rows) {
    lum_ = {};
    lum_.Script(row.command, {"bad"});
    EXPECT_EQ(Configure(row.config), -1);
    EXPECT_THAT(errors_.texts(), ElementsAre(row.text));
    EXPECT_EQ(errors_.code(), 8700U);
    EXPECT_THAT(applied_, IsEmpty());
  }
  EXPECT_EQ(waited_, 10s);
  stopping_ = true;
  EXPECT_EQ(Configure(kTwoSwitches), -1);
  EXPECT_EQ(waited_, 5s);
  stopping_ = false;
  lum_ = {};
  lum_.Script(kClear, {"bad"});
  EXPECT_EQ(Configure(kTwoSwitches), -1);
  EXPECT_THAT(
      errors_.texts(),
      ElementsAre("Failed to clear stateless Qub HostProfile Engine DVS flags. Please check Stateless "
                  "host config and reboot host. error [bad]. "));
}

}  // namespace
}  // namespace zem::zema
