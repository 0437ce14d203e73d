// The records and commands that describe a switch to the host, text for text, and the parsing of its plain
// replies.

#include "app/zema/proxy/switch_record.h"

#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include "app/zema/hostlib/switch_teaming.h"
#include "app/zema/proxy/lum_reply.h"
#include "app/zema/proxy/switch_id.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::HostConfigMsg;
using orlane::zem::switching::HostSwitchMsg;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

HostSwitchMsg Switch(const std::string& text) {
  HostSwitchMsg message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
  return message;
}

constexpr const char* kFull = R"(
  id: "50 2e" name: "sw one" type: 2 mtu: 1700 overlay: true vif_collection_status: 1 snic_offload: true
  transport_zone_id: "z1" transport_zone_id: "z2" transport_zone_profile_id: "p1"
  pnic { device_name: "vmnic1" uplink_name: "u1" } pnic { device_name: "vmnic2" uplink_name: "u2" }
  profiles {
    uplink_profile {
      active_uplink { name: "u1" } active_uplink { name: "lag1" } standby_uplink { name: "u2" }
      lag { name: "lag1" uplink_count: 2 mode: ACTIVE load_balance_algo: DEST_MAC timeout_type: FAST number: 7 }
      lag { name: "lag2" uplink_count: 4 mode: PASSIVE load_balance_algo: SRC_DEST_MAC timeout_type: SLOW }
    }
    extra_configs_profile { config_pair { key: "a" value: "1" } config_pair { key: "b" value: "x=y" } }
  })";

TEST(SwitchRecordTest, Fields) {
  const struct {
    const char* message;
    const char* record;
  } rows[] = {
      {kFull,
       "50 2e|sw one|1700|KLN|z1,z2|p1|vmnic1~u1,vmnic2~u2|u1,lag1,u2|1|"
       "lag1,2,active,destMac,fast,7=lag2,4,passive,srcDestMac,slow,0|a=1,b=x=y|1|1"},
      {"id: 'i'", "i||0|NVS|||||0||none|0|0"},
      {"id: 'i' type: 1 profiles { uplink_profile { lag { name: 'l' load_balance_algo: SRC_MAC } "
       "lag { name: 'm' load_balance_algo: SRC_DEST_IP_VLAN } } }",
       "i||0|NVS|||||0|l,0,active,srcMac,fast,0=m,0,active,srcDestIpVlan,fast,0|none|0|0"},
  };
  for (const auto& row : rows) {
    MigratedPnics migrated;
    std::string error;
    EXPECT_EQ(BuildSwitchRecord(Switch(row.message), &migrated, &error), row.record);
    EXPECT_THAT(migrated, IsEmpty());
  }
}

// If the physical NICs moved before the management interface, it would lose its link.
TEST(SwitchRecordTest, PnicsOfAMigratedSwitchGoWithTheMigration) {
  MigratedPnics migrated{{"50 2e", {}}};
  std::string error;
  const auto record = BuildSwitchRecord(Switch(kFull), &migrated, &error);
  ASSERT_TRUE(record);
  EXPECT_THAT(*record, HasSubstr("|z1,z2|p1||u1,lag1,u2|"));
  EXPECT_THAT(migrated["50 2e"], ElementsAre("vmnic1~u1", "vmnic2~u2"));
}

TEST(SwitchRecordTest, ASeparatorInAValueIsRefused) {
  for (const char* message :
       {"id: 'a|b'", "name: 'a;b'", "transport_zone_id: 'a,b'", "transport_zone_profile_id: 'a;b'",
        "pnic { device_name: 'a~b' }", "pnic { uplink_name: 'a,b' }",
        "profiles { uplink_profile { active_uplink { name: 'a,b' } } }",
        "profiles { uplink_profile { lag { name: 'a=b' } } }",
        "profiles { extra_configs_profile { config_pair { key: 'a=b' } } }"}) {
    MigratedPnics migrated{{"", {}}};
    std::string error;
    EXPECT_FALSE(BuildSwitchRecord(Switch(message), &migrated, &error)) << message;
    EXPECT_THAT(error, HasSubstr("must not contain '")) << message;
    EXPECT_THAT(migrated[""], IsEmpty());
  }
}

TEST(SwitchRecordTest, TheFirstPhaseHasNoRecords) {
  HostConfigMsg config;
  *config.add_host_switches() = Switch("id: 'a'");
  *config.add_host_switches() = Switch("id: 'b'");
  MigratedPnics migrated;
  std::string error;
  const auto records = BuildSwitchRecords(config, &migrated, &error);
  ASSERT_TRUE(records);
  EXPECT_EQ(ApplyDvsesCommand(*records), "applyDvses(a||0|NVS|||||0||none|0|0;b||0|NVS|||||0||none|0|0)");
  config.set_phase(HostConfigMsg::PHASE1_PARTIAL);
  EXPECT_THAT(BuildSwitchRecords(config, &migrated, &error).value(), IsEmpty());
  config.set_phase(HostConfigMsg::PHASE2_COMBINED);
  EXPECT_EQ(BuildSwitchRecords(config, &migrated, &error)->size(), 2U);
}

TEST(SwitchRecordTest, ZonesNameTheirSwitch) {
  HostConfigMsg config;
  *config.add_host_switches() = Switch("id: 'a' type: 2 transport_zone_id: 'z1' transport_zone_id: 'z2'");
  *config.add_host_switches() = Switch("id: 'b' transport_zone_id: 'z3'");
  EXPECT_THAT(TzToDvsOf(config),
              ElementsAre(TzDvs{"z1", "a", "KLN"}, TzDvs{"z2", "a", "KLN"}, TzDvs{"z3", "b", "NVS"}));
}

TEST(SwitchTeamingTest, OwnAndNamed) {
  const HostSwitchMsg message = Switch(R"(profiles {
    uplink_profile { teaming_policy: TEAMING_POLICY_2 active_uplink { name: "u1" } active_uplink { name: "u2" }
                     standby_uplink { name: "u3" } rolling_order: 1 }
    named_uplink_profile { name: "t" uplink_profile { standby_uplink { name: "u4" } } } })");
  EXPECT_EQ(TeamingOf(message), (SwitchTeaming{"", 2, {"u1", "u2"}, {"u3"}, 1}));
  EXPECT_THAT(NamedTeamingsOf(message), ElementsAre(SwitchTeaming{"t", 0, {}, {"u4"}, 0}));
  EXPECT_EQ(TeamingOf({}), SwitchTeaming{});
}

TEST(SwitchIdTest, Conversion) {
  const struct {
    const char* id;
    const char* converted;  // null: refused
  } rows[] = {
      {"502e4a6b-0011-2233-4455-66778899aABb", "50 2e 4a 6b 00 11 22 33-44 55 66 77 88 99 aA Bb"},
      {"50 2e anything", "50 2e anything"},
      {"", nullptr},
      {"502e4a6b-0011-2233-4455-66778899aab", nullptr},
      {"502e4a6b00011-2233-4455-66778899aabb", nullptr},
      {"502e4a6b-0011-2233-4455-66778899aagb", nullptr},
  };
  for (const auto& row : rows) {
    std::string id = row.id;
    EXPECT_EQ(ConvertDvsUuidToQubFormat(&id), row.converted != nullptr) << row.id;
    EXPECT_EQ(id, row.converted != nullptr ? row.converted : row.id);
  }
}

TEST(LumReplyTest, OkLists) {
  using List = std::vector<std::string>;
  const struct {
    const char* reply;
    bool keep_empty;
    std::optional<List> list;
  } rows[] = {
      {"ok|a,b c", false, List{"a", "b c"}},
      {"ok", false, List{}},
      {"ok|", true, List{}},
      {"ok|a,,b", true, List{"a", "", "b"}},
      {"ok|,", true, {{"", ""}}},
      {"ok|a,,b", false, List{"a", "b"}},
      {"", false, std::nullopt},
      {"okay", false, std::nullopt},
      {"no|a", false, std::nullopt},
  };
  for (const auto& row : rows) EXPECT_EQ(ParseOkList(row.reply, row.keep_empty), row.list) << row.reply;
}

TEST(LumReplyTest, ZoneMappingSkipsEntriesWithoutThreeMembers) {
  size_t skipped = 0;
  const auto mapping = ParseTzToDvs("ok|z1:50 2e:KLN|bad|z2:d2:NVS:more|z3:d3:NVS", &skipped);
  ASSERT_TRUE(mapping);
  EXPECT_THAT(*mapping, ElementsAre(TzDvs{"z1", "50 2e", "KLN"}, TzDvs{"z3", "d3", "NVS"}));
  EXPECT_EQ(skipped, 2U);
  EXPECT_THAT(ParseTzToDvs("ok", &skipped).value(), IsEmpty());
  EXPECT_FALSE(ParseTzToDvs("failed", &skipped));
}

TEST(LumReplyTest, Mac) {
  const struct {
    const char* text;
    std::optional<uint64_t> mac;
  } rows[] = {
      {"345052807169", 345052807169},
      {"00:50:56:0a:00:01", 0x0050560a0001},
      {"281474976710656", std::nullopt},
      {"00:50:56:0a:00", std::nullopt},
      {"0:50:56:0a:00:001", std::nullopt},
      {"00:50:56:0g:00:01", std::nullopt},
      {"", std::nullopt},
      {"-1", std::nullopt},
      {"12x", std::nullopt},
      {"99999999999999999999", std::nullopt},
  };
  for (const auto& row : rows) EXPECT_EQ(ParseMac(row.text), row.mac) << row.text;
}

}  // namespace
}  // namespace zem::zema
