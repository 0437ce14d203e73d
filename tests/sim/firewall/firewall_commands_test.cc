#include "sim/firewall/firewall_commands.h"

#include <gmock/gmock.h>
#include <stdlib.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "sim/control/command_table.h"
#include "sim/firewall/tree/firewall_tree.h"
#include "sim/switch/sim_state.h"
#include "tests/support/temp_dir.h"

namespace zem::sim {
namespace {

using testing::HasSubstr;

class FirewallCommandsTest : public testing::Test {
 protected:
  FirewallCommandsTest() {
    ::setenv("ZEM_SIM_ROOT", folder.Path().c_str(), 1);
    state.emplace();
    EXPECT_TRUE(firewall::Prepare());
    RegisterFirewallCommands(table);
  }
  std::string Run(const std::string& line) {
    std::string answer;
    table.Execute(line, Reply([&answer](Json json) { answer = JsonText(json.get()); }));
    return answer;
  }

  const test::TempDir folder;
  std::optional<SwitchState> state;
  CommandTable table;
};

TEST_F(FirewallCommandsTest, FiltersAndMemberships) {
  EXPECT_THAT(Run("filter vm-1 many"), HasSubstr("no vNIC many"));
  EXPECT_THAT(Run("filter a/b 1"), HasSubstr("\"ok\":false"));
  EXPECT_THAT(Run("filter --no-vif 'vm 1' 4000"), HasSubstr("\"ok\":true"));
  EXPECT_THAT(Run("counters 'vm 1' 4000 18446744073709551615 2"), HasSubstr("\"ok\":true"));
  EXPECT_THAT(Run("counters 'vm 1' 4001 1 2"), HasSubstr("no such filter"));
  EXPECT_THAT(Run("show"), HasSubstr(R"({"vm":"vm 1","vnic":4000,"name":"orlane-sfw",)"
                                     R"("bypassed":"18446744073709551615","dropped":2,"vif":false})"));
  ASSERT_TRUE(firewall::PutMembership({"S-1", 1, {"S-2"}, 4000}));
  ASSERT_TRUE(firewall::PutConnection({"vm 1", 4000, "6 a b", "S-1", 0}));
  EXPECT_THAT(DrawFirewall(20), testing::ElementsAre("firewall: 1 filters, 1 connections, 1 memberships",
                                                     "  vm 1 vNIC 4000: 6 a b of S-1"));
  EXPECT_THAT(Run("forget S-1"), HasSubstr("\"ok\":true"));
  EXPECT_THAT(Run("forget S-1"), HasSubstr("no membership"));
  EXPECT_FALSE(firewall::Connections().empty());
  Run("restart");
  EXPECT_TRUE(firewall::Connections().empty());
  EXPECT_THAT(Run("remove 'vm 1' 4000"), HasSubstr("\"ok\":true"));
  EXPECT_THAT(Run("remove 'vm 1' 4000"), HasSubstr("no such filter"));
  EXPECT_THAT(Run("device broken"), HasSubstr("no fault"));
}

// The driver writes no more than the caller has room for, and refuses what is not its request.
TEST_F(FirewallCommandsTest, DeviceKeepsToTheBuffer) {
  for (uint32_t vnic = 1; vnic <= 3; ++vnic)
    ASSERT_TRUE(firewall::PutFilter({.vm_uuid = "vm", .vnic = vnic}));
  std::array<char, FW_FILTER_SIZE + 1> buffer{};
  buffer.back() = '#';
  FW_DeviceBody body{};
  std::strcpy(body.agent, "orlane-sfw");
  FW_DeviceHeader header{FW_REQUEST_FILTER_COUNT, 7, sizeof(body), reinterpret_cast<uintptr_t>(&body)};
  ASSERT_EQ(firewall::ServeRequest(FW_REQUEST_FILTER_COUNT, &header), 0);
  EXPECT_EQ(header.status, 0U);
  EXPECT_EQ(body.filter_count, 3U);
  body.buffer = reinterpret_cast<uintptr_t>(buffer.data());
  body.buffer_size = FW_FILTER_SIZE;
  header.command = FW_REQUEST_FILTERS;
  ASSERT_EQ(firewall::ServeRequest(FW_REQUEST_FILTERS, &header), 0);
  EXPECT_EQ(body.filter_count, 1U);
  EXPECT_STREQ(buffer.data() + FW_FILTER_NAME, "orlane-sfw");
  EXPECT_EQ(buffer.back(), '#');

  header.body_size = 100;
  ASSERT_EQ(firewall::ServeRequest(FW_REQUEST_FILTERS, &header), 0);
  EXPECT_NE(header.status, 0U);
  EXPECT_EQ(state->journal().Violations().size(), 1U);
  EXPECT_EQ(firewall::ServeRequest(22, &header), -1);
  EXPECT_EQ(errno, ENOTTY);
}

}  // namespace
}  // namespace zem::sim
