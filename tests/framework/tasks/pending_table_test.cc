#include "framework/tasks/pending_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/core/virtual_clock.h"

namespace zem {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Table = PendingTable<std::string, std::string>;

// An entry is taken once, by whichever asks first, and entries that are taken together come in the order of
// their arrival.  What is not added stays the caller's.
TEST(PendingTableTest, EachEntryIsTakenOnce) {
  VirtualClock clock;
  Table table(3);
  for (const char* const key : {"z", "a", "m"})
    EXPECT_EQ(table.Add(key, std::string("of ") + key), Table::Added::kAdded);
  std::string refused = "refused";
  EXPECT_EQ(table.Add("z", std::move(refused)), Table::Added::kFull);
  EXPECT_EQ(refused, "refused");
  EXPECT_EQ(table.Take("a"), "of a");
  EXPECT_EQ(table.Take("a"), std::nullopt);
  EXPECT_EQ(table.Add("z", std::move(refused)), Table::Added::kExists);
  EXPECT_EQ(refused, "refused");
  table.Change("z", [](std::string& value) { value += "!"; });
  table.Change("gone", [](std::string&) { ADD_FAILURE(); });
  const auto any = [](const std::string&) { return true; };
  EXPECT_EQ(table.TakeFirst([](const std::string& value) { return value != "of z!"; }), "of m");
  EXPECT_EQ(table.Add("b", "of b"), Table::Added::kAdded);
  EXPECT_EQ(table.TakeFirst(any), "of z!");
  EXPECT_EQ(table.TakeFirst(any), "of b");
  EXPECT_EQ(table.TakeFirst(any), std::nullopt);
  EXPECT_EQ(table.size(), 0U);
}

TEST(PendingTableTest, AgesAreExact) {
  VirtualClock clock;
  Table table(3);
  EXPECT_EQ(table.Add("a", "first"), Table::Added::kAdded);
  clock.RunFor(milliseconds(500));
  EXPECT_EQ(table.Add("b", "second"), Table::Added::kAdded);
  clock.RunFor(milliseconds(1499));
  EXPECT_THAT(table.TakeOlder(milliseconds(2000)), IsEmpty());
  clock.RunFor(milliseconds(1));
  EXPECT_THAT(table.TakeOlder(milliseconds(2000)), ElementsAre("first"));
}

}  // namespace
}  // namespace zem
