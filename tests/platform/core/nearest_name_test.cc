#include "platform/core/nearest_name.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace zem {
namespace {

// A suggestion that is far off is worse than none, and one edit has to be enough for short words.
TEST(NearestNameTest, SuggestsWhatWasProbablyMeant) {
  constexpr std::array<std::string_view, 5> kNames = {"status", "store", "vifs", "log", "app.ctxteng"};
  const std::string huge(1 << 20, 's');
  struct Case {
    std::string_view word;
    std::string_view name;
  };
  for (const Case& c : {Case{"status", "status"}, Case{"staus", "status"}, Case{"sttaus", "status"},
                        Case{"statuss", "status"}, Case{"stora", "store"}, Case{"vif", "vifs"},
                        Case{"olg", "log"}, Case{"app.ctxtegn", "app.ctxteng"}, Case{"xyz", ""},
                        Case{"verticals", ""}, Case{"", ""}, Case{huge, ""}}) {
    EXPECT_EQ(NearestName(c.word, kNames), c.name) << c.word.substr(0, 20);
  }
  EXPECT_EQ(NearestName("status", {}), "");
}

}  // namespace
}  // namespace zem
