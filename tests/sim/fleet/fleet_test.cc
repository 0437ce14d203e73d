#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

#include "sim/fleet/fleet_program.h"

namespace zem::fleet {
namespace {

using testing::ElementsAre;

TEST(FleetOrderTest, WordsAreReadOrRefused) {
  const FleetOrder order = ReadFleetOrder({"20", "aph-list", "--curve", "file"});
  EXPECT_EQ(order.hosts, 20);
  EXPECT_THAT(order.stories, ElementsAre("start", "aph-list"));
  EXPECT_EQ(order.curve, "file");
  EXPECT_EQ(ReadFleetOrder({}).stories, Fabric::StoryNames());
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {"0"}, {"10001"}, {"5x"}, {"3", "4"}, {"-1"}, {"starts"}, {"--curve"}, {""}}) {
    EXPECT_THROW(ReadFleetOrder(words), std::invalid_argument) << words[0];
  }
}

// A story is a change that happens: hosts that lose their manager are not served until they have found it
// again, and the outage of their stores is none of the manager's.
TEST(FleetTest, EachStoryHappens) {
  constexpr int kHosts = 4;
  constexpr uint64_t kOfEach = 7;  // verticals with a handshake
  FleetOrder order = ReadFleetOrder({std::to_string(kHosts)});
  order.over_time = true;
  std::ostringstream out;
  const std::vector<StorySum> sums = RunFleet(order, out);
  ASSERT_EQ(sums.size(), 5u);
  EXPECT_EQ(sums[0].handshakes, kHosts * kOfEach) << "start";
  EXPECT_GT(sums[0].ready_at, 1u);
  EXPECT_EQ(sums[1].handshakes, kHosts * kOfEach) << "restart of the manager";
  EXPECT_GT(sums[1].ready_at, 60u) << "it is away for a minute";
  EXPECT_GE(sums[2].handshakes, kHosts * kOfEach) << "another master";
  EXPECT_EQ(sums[3].messages, 0u) << "stores";
  EXPECT_EQ(sums[4].handshakes, kHosts * kOfEach) << "upgrade";
  EXPECT_LT(sums[4].handshake_peak, kHosts * kOfEach) << "in waves";
  EXPECT_THAT(out.str(), testing::HasSubstr("upgrade-wave"));
}

}  // namespace
}  // namespace zem::fleet
