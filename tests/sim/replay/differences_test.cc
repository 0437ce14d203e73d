#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

#include "sim/replay/replayer.h"
#include "tests/support/temp_dir.h"

namespace zem::sim {
namespace {

using testing::HasSubstr;

// A lost call, one too many and another order each have to be told; a question asked once more has not.
TEST(DifferencesTest, EveryKindIsFound) {
  Borders before;
  Borders after;
  for (const char* line : {"PortAdd -> 0", "PortAdd -> 0", "PropSet -> 0"})
    before.Add("library ks-1 p1", line);
  for (const char* line : {"PortAdd -> 0", "PropSet -> 0", "PortDel -> 0"})
    after.Add("library ks-1 p1", line);
  before.Add("script apply", "a");
  before.Add("script apply", "b");
  after.Add("script apply", "b");
  after.Add("script apply", "a");
  before.Add("script get, questions", "x");
  before.Add("script get, questions", "y");
  after.Add("script get, questions", "y");
  after.Add("script get, questions", "x");
  std::ostringstream out;
  EXPECT_EQ(Judge(before.Compare(after), {}, out), 2u);
  EXPECT_EQ(
      out.str(),
      "library ks-1 p1\n  - PortAdd -> 0\n  + PortDel -> 0\nscript apply\n  the same, in another order\n");
  EXPECT_TRUE(before.Compare(before).empty());
}

class ExpectedDifferencesTest : public testing::Test {
 protected:
  ExpectedDifferences Read(const std::string& block) {
    dir_.Write("notes.md", "# Notes\n- no difference\n" + block);
    return ExpectedDifferences::Read(dir_.Path("notes.md"));
  }
  const test::TempDir dir_;
};

// What the notes do not announce still counts, and so does what they announce and nobody sees.
TEST_F(ExpectedDifferencesTest, OnlyWhatIsAnnouncedPasses) {
  const std::vector<Difference> found = {{"library ks-1 p1", '-', "PortAdd -> 0"},
                                         {"library ks-1 p1", '+', "PortAdd -> 0, 8 bytes"},
                                         {"script apply", '~', ""}};
  const std::string all =
      "```differences\n- library .*: PortAdd -> 0\n+ library .*: PortAdd -> 0, \\d bytes\n"
      "~ script apply\n```\n";
  std::ostringstream out;
  EXPECT_EQ(Judge(found, Read(all), out), 0u);
  EXPECT_EQ(Judge(found, Read("```differences\n- library .*\n```\n"), out), 2u);
  EXPECT_EQ(Judge(found, Read("```differences\n- .*\n+ .*\n~ .*\n~ script other\n```\n"), out), 1u);
  EXPECT_THAT(out.str(), HasSubstr("expected, and not there: ~ script other"));
  EXPECT_EQ(Judge(found, Read("```differences\n```\n"), out), 2u);
}

TEST_F(ExpectedDifferencesTest, NotesThatSayNothingClearAreRefused) {
  for (const char* block :
       {"", "```differences\n", "```differences\nlibrary\n```\n", "```differences\n- (\n```\n"}) {
    EXPECT_THROW(Read(block), std::runtime_error) << block;
  }
}

}  // namespace
}  // namespace zem::sim
