#include "app/healthcheck/check_values.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zem::Tarvik {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(CheckValuesTest, BitmapsHaveTheVlansOfTheirRanges) {
  const auto ends = MakeVlanBitmap({{1, 1}, {4094, 4095}, {9, 8}});
  ASSERT_TRUE(ends);
  VlanBitmap expected{};
  expected[0] = 0x02;
  expected[511] = 0xc0;
  EXPECT_EQ(*ends, expected);
  const auto all = MakeVlanBitmap({{0, 4095}});
  ASSERT_TRUE(all);
  EXPECT_THAT(*all, ::testing::Each(0xff));
  for (const VlanRange range : {VlanRange{0, 4096}, VlanRange{4096, 1}, VlanRange{0, UINT32_MAX}})
    EXPECT_FALSE(MakeVlanBitmap({{1, 1}, range})) << range.first << " to " << range.last;
}

// A value whose length is not that of its counts tells nothing, however the counts are chosen.
TEST(CheckValuesTest, ValuesAreTakenWholeOrNotAtAll) {
  const std::string head("\x02\0\x01\0", 4);
  const std::string ranges("\x01\0\x02\0\x03\0\x04\0\x05\0\x06\0", 12);
  const auto result = ParseCheckResult(head + ranges);
  ASSERT_TRUE(result);
  EXPECT_THAT(result->first, ElementsAre(VlanRange{1, 2}, VlanRange{3, 4}));
  EXPECT_THAT(result->second, ElementsAre(VlanRange{5, 6}));
  for (const std::string& wrong : {std::string(), std::string("\0\0\0", 3), head, head + ranges.substr(1),
                                   head + ranges + 'x', std::string("\xff\xff\xff\xff", 4) + ranges})
    EXPECT_FALSE(ParseCheckResult(wrong)) << wrong.size();

  std::string id = "uplink-1";
  id.resize(48);
  const std::string unended(48, 'a');
  EXPECT_THAT(*ParseUplinkPorts(std::string("\x02\0\0\0", 4) + id + unended),
              ElementsAre("uplink-1", unended));
  EXPECT_THAT(*ParseUplinkPorts(std::string(4, '\0')), IsEmpty());
  for (const std::string& wrong : {std::string(3, '\0'), std::string("\x01\0\0\0", 4), std::string(5, '\0'),
                                   std::string("\x56\x55\x55\x05", 4) + std::string(32, 'a')})
    EXPECT_FALSE(ParseUplinkPorts(wrong)) << wrong.size();
}

TEST(CheckValuesTest, Names) {
  EXPECT_EQ(ParseAlias(std::string("u1\0rest", 7)), "u1");
  EXPECT_EQ(ParseAlias(std::string(200, 'a')), std::string(81, 'a'));
  EXPECT_EQ(SwitchIdOfName("m\xc3\xbcsli"), "6d c3 bc 73 6c 69 00 00-00 00 00 00 00 00 00 00");
  EXPECT_EQ(SwitchIdOfName("a-name-of-forty-characters-or-even-more!"),
            "61 2d 6e 61 6d 65 2d 6f-66 2d 66 6f 72 74 79 00");
}

}  // namespace
}  // namespace zem::Tarvik
