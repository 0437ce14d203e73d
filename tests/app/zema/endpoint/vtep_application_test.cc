// The endpoints of a switch: the command to the host, and how the host's answer changes the message.

#include "app/zema/endpoint/vtep_application.h"

#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include "app/zema/endpoint/vtep_command.h"
#include "app/zema/proxy/error_sink.h"
#include "proto/switching/host_switch.pb.h"
#include "tests/app/zema/proxy/fake_lum_commands.h"
#include "tests/support/log_capture.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::HostSwitchMsg;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

using Texts = std::vector<std::string>;

constexpr const char* kVersion = "IsQUBiVersionGreaterThanEqual801()";

HostSwitchMsg Parse(const std::string& text) {
  HostSwitchMsg message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
  return message;
}

TEST(VtepCommandTest, Command) {
  const struct {
    const char* message;
    Texts migrated;
    bool upgrade;
    const char* command;
  } rows[] = {
      {"id: 'i'",
       {},
       false,
       "applyVtep(uuid=i|defaultGateway=|subnetMask=|ipv6DefaultGateway=|ipv6PrefixLength=|vlan=|mtu=|dhcp=1|"
       "ipv6Dhcp=0|ipv6AutoConf=0|vtep=|vtepsMigrated=|upgrade=false)"},
      {"id: '50 2e' default_gateway: '10.0.0.1' subnet_mask: '255.0.0.0' ipv6_default_gateway: 'fd::1' "
       "ipv6_prefix_length: '64' transport_vlan: 0 vtep_mtu: 1600 static_address: true ipv6_dhcp: true "
       "ipv6_auto_conf: true "
       "vteps { device_name: 'knl10' ipv4_address: '10.0.0.2' ipv6_address: 'fd::2' mac { value: 345 } } "
       "vteps { device_name: 'knl11' mac {} state: 1 } vteps { state: 3 }",
       {"knl10", "knl11"},
       true,
       "applyVtep(uuid=50 2e|defaultGateway=10.0.0.1|subnetMask=255.0.0.0|ipv6DefaultGateway=fd::1|"
       "ipv6PrefixLength=64|vlan=0|mtu=1600|dhcp=0|ipv6Dhcp=1|ipv6AutoConf=1|"
       "vtep=knl10~10.0.0.2~fd::2~345~,knl11~~~~skip_migrating,~~~~|vtepsMigrated=knl10,knl11|upgrade=true)"},
  };
  std::string error;
  for (const auto& row : rows) {
    EXPECT_EQ(BuildApplyVtep(Parse(row.message), row.migrated, row.upgrade, &error), row.command);
  }
  for (const char* message : {"id: 'a|b'", "default_gateway: '|'", "vteps { device_name: 'a,b' }",
                              "vteps { ipv4_address: 'a~b' }", "vteps { ipv6_address: 'a|b' }"}) {
    EXPECT_FALSE(BuildApplyVtep(Parse(message), {}, false, &error)) << message;
    EXPECT_THAT(error, HasSubstr("must not contain"));
  }
  EXPECT_FALSE(BuildApplyVtep(Parse(""), {"a,b"}, false, &error));
}

class VtepApplicationTest : public ::testing::Test {
 protected:
  // Applies `message`; the host answers `reply`.
  bool Apply(const std::string& message, const std::string& reply) {
    message_ = Parse(message);
    errors_ = {};
    outcome_ = {};
    lum_.commands.clear();
    std::string error;
    const auto command = BuildApplyVtep(message_, {}, false, &error);
    if (command) lum_.Script(*command, {reply});
    const EndpointIdOf id_of = [this](const std::string& name, const std::string& device) {
      EXPECT_EQ(name, message_.name());
      const auto found = ids_.find(device);
      return found == ids_.end() ? std::nullopt : std::optional<uint32_t>(found->second);
    };
    return VtepApplication(lum_, errors_, id_of, outcome_).ApplyVTEP(&message_, {}, false);
  }

  void ExpectMessage(const std::string& text) const {
    EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(message_, Parse(text)))
        << message_.DebugString();
  }

  FakeLumCommands lum_;
  ErrorSink errors_;
  VtepOutcome outcome_;
  HostSwitchMsg message_;
  std::map<std::string, uint32_t> ids_;
};

TEST_F(VtepApplicationTest, TheHostsOrderAndAddressesGoIntoTheMessage) {
  ids_ = {{"knl10", 7}, {"knl11", 3}, {"knl13", 5}};
  EXPECT_TRUE(
      Apply("id: 'i' name: 'n' static_address: true subnet_mask: 'old' "
            "vteps { device_name: 'knl10' ipv4_address: '10.0.0.2' } vteps { device_name: 'knl12' } "
            "vteps { device_name: 'knl11' } vteps { device_name: 'knl13' state: 1 }",
            "ok|10.0.0.1~ok|~ok|fd::1~ok|64~ok|knl10~10.0.0.2~::~ok~00:50:56:00:00:01|"
            "knl12~10.0.0.9~~ok|knl11~10.0.0.3~fd::3~ok~5|knl13~10.0.0.4~~skipped|"
            "knl14~10.0.0.5~fd::5~removed"));
  ExpectMessage(
      "id: 'i' name: 'n' static_address: true default_gateway: '10.0.0.1' subnet_mask: 'old' "
      "ipv6_default_gateway: 'fd::1' ipv6_prefix_length: '64' "
      "vteps { device_name: 'knl11' ipv4_address: '10.0.0.3' ipv6_address: 'fd::3' mac { value: 5 } state: 4 "
      "} "
      "vteps { device_name: 'knl13' ipv4_address: '10.0.0.4' state: 1 } "
      "vteps { device_name: 'knl10' ipv4_address: '10.0.0.2' mac { value: 345040224257 } state: 4 } "
      "vteps { device_name: 'knl12' ipv4_address: '10.0.0.9' state: 4 } "
      "vteps { device_name: 'knl14' ipv4_address: '10.0.0.5' ipv6_address: 'fd::5' state: 5 }");
  EXPECT_THAT(outcome_.endpoint_ids, ElementsAre(3, 5, 7));
  EXPECT_THAT(outcome_.dhcp_devices, IsEmpty());
  EXPECT_THAT(outcome_.ipv6_kinds, IsEmpty());
  EXPECT_EQ(errors_.code(), 0U);
}

// An address that the host gave itself must not be reported as the endpoint's address.
TEST_F(VtepApplicationTest, DynamicAddressesThatAreStillToComeAreFetchedLater) {
  for (const char* address : {"169.254.1.1", "0.0.0.0", ""}) {
    EXPECT_TRUE(Apply("vteps { device_name: 'd' ipv4_address: '1.1.1.1' } vteps { device_name: 'e' }",
                      std::string("ok|~ok|~ok|~ok|~ok|d~") + address + "~~ok|e~169.25.1.1~::~ok"));
    ExpectMessage(
        "vteps { device_name: 'd' state: 4 } "
        "vteps { device_name: 'e' ipv4_address: '169.25.1.1' state: 4 }");
    EXPECT_THAT(outcome_.dhcp_devices, ElementsAre("d"));
    EXPECT_THAT(outcome_.ipv6_kinds, IsEmpty());
  }
  EXPECT_TRUE(Apply("static_address: true ipv6_dhcp: true vteps { device_name: 'd' ipv6_address: 'fd::9' }",
                    "ok|~ok|~ok|~ok|~ok|d~0.0.0.0~::~ok"));
  ExpectMessage(
      "static_address: true ipv6_dhcp: true vteps { device_name: 'd' ipv4_address: '0.0.0.0' state: 4 }");
  EXPECT_THAT(outcome_.dhcp_devices, IsEmpty());
  EXPECT_THAT(outcome_.ipv6_kinds, ElementsAre(Pair("d", "dhcp")));
  EXPECT_TRUE(Apply("ipv6_auto_conf: true vteps { device_name: 'd' } vteps { device_name: 'e' }",
                    "ok|~ok|~ok|~ok|~ok|d~1.1.1.1~~ok|e~1.1.1.2~fd::2~ok"));
  EXPECT_THAT(outcome_.ipv6_kinds, ElementsAre(Pair("d", "linklayer")));
}

TEST_F(VtepApplicationTest, FailuresNameTheirCauseAndLeaveOnlyExistingEndpoints) {
  constexpr const char* kTwo = "name: 'n' vteps { device_name: 'a' } vteps { device_name: 'b' state: 4 }";
  const struct {
    std::string reply;
    Texts texts;
    Texts left;
    size_t failed;
  } rows[] = {
      {"no", {"VTEP apply operation failed: [no]"}, {"b"}, 0},
      {"", {"VTEP apply operation failed: []"}, {"b"}, 0},
      {"okay|~ok|~ok|~ok|~ok|a~1~~ok|b~2~~ok",
       {"VTEP apply operation failed, unexpected data: [okay|~ok|~ok|~ok|~ok|a~1~~ok|b~2~~ok]"},
       {"b"},
       0},
      {"ok|~ok|~ok|~ok|~ok|a~1~~ok",
       {"VTEP apply operation failed, unexpected data: [ok|~ok|~ok|~ok|~ok|a~1~~ok]"},
       {"b"},
       0},
      {"ok|~ok|ok|~ok|~ok|a~1~~ok|b~2~~ok",
       {"VTEP apply operation failed, unexpected data: [ok|~ok|ok|~ok|~ok|a~1~~ok|b~2~~ok]"},
       {"b"},
       0},
      {"ok|g~g!|m~m!|6~6!|p~p!|a~1~~ok|b~2~~ok",
       {"DefaultGateway [g] failed to be applied: g!", "SubnetMask [m] failed to be applied: m!",
        "Ipv6DefaultGateway [6] failed to be applied: 6!", "Ipv6PrefixLength [p] failed to be applied: p!"},
       {"a", "b"},
       0},
      {"ok|~ok|~ok|~ok|~ok|a~1.1.1.1~fd::1~busy|b~2~~skipped|c~3~~removed",
       {"VTEP [a,1.1.1.1,fd::1] failed to be applied: busy"},
       {"b", "c"},
       1},
      {"ok|~ok|~ok|~ok|~ok|a~1~~ok|b~2~~bad|", {"VTEP [b,2,] failed to be applied: bad"}, {"a"}, 1},
      {"ok|~ok|~ok|~ok|~ok|a~1~ok|b~2~~ok|c~3~~in use",
       {"VTEP operation invalid reply: [ok|~ok|~ok|~ok|~ok|a~1~ok|b~2~~ok|c~3~~in use]",
        "VTEP [c,3,] failed to be deleted: in use"},
       {"b"},
       0},
      {"ok|~ok|~ok|~ok|~ok|a~1~~ok~xx|b~2~~ok~~|c",
       {"VTEP operation invalid reply: [ok|~ok|~ok|~ok|~ok|a~1~~ok~xx|b~2~~ok~~|c]",
        "VTEP operation invalid reply: [ok|~ok|~ok|~ok|~ok|a~1~~ok~xx|b~2~~ok~~|c]",
        "VTEP operation invalid reply: [ok|~ok|~ok|~ok|~ok|a~1~~ok~xx|b~2~~ok~~|c]"},
       {},
       0},
  };
  for (const auto& row : rows) {
    EXPECT_FALSE(Apply(kTwo, row.reply));
    EXPECT_EQ(errors_.texts(), row.texts);
    EXPECT_EQ(errors_.code(), 8700U);
    Texts left;
    for (const auto& vtep : message_.vteps()) left.push_back(vtep.device_name());
    EXPECT_EQ(left, row.left) << row.reply;
    EXPECT_EQ(outcome_.failed_endpoints, row.failed);
    EXPECT_THAT(outcome_.endpoint_ids, IsEmpty());
  }
}

TEST_F(VtepApplicationTest, Ipv6NeedsAHostThatKnowsIt) {
  lum_.Script(kVersion, {"no"});
  test::LogCapture log;
  for (const char* field :
       {"ipv6_dhcp: true vteps {}", "ipv6_auto_conf: true vteps {}", "vteps { ipv6_address: 'fd::1' }"}) {
    EXPECT_FALSE(Apply(std::string("name: 'n' ") + field, "ok"));
    EXPECT_THAT(lum_.commands, ElementsAre(kVersion));
    EXPECT_THAT(
        errors_.texts(),
        ElementsAre("QUBi version is less than '8.0 Update 1' and does not support IPv6 assignment "
                    "type for host switch 'n'. Please upgrade QUBi or provide IPv4 assignment type."));
    EXPECT_EQ(message_.vteps_size(), 0);
  }
  EXPECT_EQ(log.Count("MPA42078"), 3U);
  lum_.Script(kVersion, {"ok"});
  EXPECT_TRUE(Apply("ipv6_dhcp: true", "ok|~ok|~ok|~ok|~ok"));
  EXPECT_TRUE(Apply("", "ok|~ok|~ok|~ok|~ok"));
  EXPECT_EQ(lum_.commands.size(), 1U);
}

}  // namespace
}  // namespace zem::zema
