#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

#include "sim/control/invented_id.h"
#include "sim/replay/answers.h"
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

constexpr const char* kFirst = "7d9a8f0e-1c2b-4d3e-8f4a-5b6c7d8e9f01";
constexpr const char* kSecond = "11111111-1c2b-4d3e-8f4a-5b6c7d8e9f02";

// Names that each life makes up must not differ, and a wrong one must: an id that the day gave and the daemon
// changed, or one that both lives know and that is now in another's place.
TEST(DifferencesTest, OnlyNamesThatALifeMadeUpAreForgiven) {
  const auto compare = [](const std::string& before, const std::string& after, const char* given = "") {
    Borders first;
    Borders second;
    for (Borders* each : {&first, &second})
      each->Add("store", "both know 22222222-1c2b-4d3e-8f4a-5b6c7d8e9f02");
    first.Add("manager", before);
    second.Add("manager", after);
    Likeness likeness;
    likeness.Give(given);
    return first.Compare(second, likeness).size();
  };
  EXPECT_EQ(compare(std::string("id ") + kFirst, std::string("id ") + kSecond), 0u);
  EXPECT_EQ(compare("at 1795689600123456", "at 1795689611123456"), 0u);
  EXPECT_EQ(compare("at 2026-11-26T10:00:00.5Z", "at 2026-11-27T10:00:00Z"), 0u);
  EXPECT_EQ(compare("Fri Nov 27 10:28:52 2026", "Sat Nov 28 10:28:53 2026"), 0u);
  EXPECT_EQ(compare("count 41", "count 42"), 2u);
  EXPECT_EQ(compare(std::string("id ") + kFirst, "id 22222222-1c2b-4d3e-8f4a-5b6c7d8e9f02"), 2u);
  EXPECT_EQ(compare(std::string("id ") + kFirst, std::string("id ") + kSecond, kFirst), 2u);
  EXPECT_EQ(compare(std::string("id ") + kFirst, "id "), 2u);
}

// Files are compared byte by byte, also where the bytes look like a name.
TEST(DifferencesTest, FilesForgiveNothing) {
  Borders first;
  Borders second;
  first.Add("file a, at the end", "{\"hex\":\"00112233445566778899aabbccddeeff\"}");
  second.Add("file a, at the end", "{\"hex\":\"00112233445566778899aabbccddeefe\"}");
  EXPECT_EQ(first.Compare(second).size(), 2u);
}

// Whether a question is asked follows the pace; another answer to it does not.
TEST(DifferencesTest, AQuestionCountsWhereBothHaveAskedIt) {
  Borders first;
  Borders second;
  first.Add("library p1, questions", "PropGet a -> 0");
  first.Add("library p1, questions", "PropGet b -> 0");
  second.Add("library p1, questions", "PropGet a -> 0");
  EXPECT_TRUE(first.Compare(second).empty());
  second.Add("library p1, questions", "PropGet b -> 1");
  EXPECT_EQ(first.Compare(second).size(), 2u);
  // One life has asked at one more moment, when the answer was another one.
  first.Add("library p1, questions", "PropGet b -> 1");
  EXPECT_TRUE(first.Compare(second).empty());
}

TEST(AnswersTest, WhatTheDaemonSaidIsJudgedWithoutItsMeasures) {
  const auto part = [](const char* command, const char* answer) {
    return ComparablePart(command, answer).text;
  };
  const char* const send = "manager send SwitchingVertical X";
  EXPECT_EQ(part(send, R"({"ok":true,"result":{"status":0,"took_us":7,"answer":{"code":1}}})"),
            part(send, R"({"ok":true,"result":{"status":0,"took_us":9,"answer":{"code":1}}})"));
  EXPECT_NE(part(send, R"({"ok":true,"result":{"status":0,"answer":{"code":1}}})"),
            part(send, R"({"ok":true,"result":{"status":0,"answer":{"code":2}}})"));
  EXPECT_EQ(part("cli get/queues", R"({"ok":true,"result":{"text":"depth 10, UP"}})"),
            part("cli get/queues", R"({"ok":true,"result":{"text":"depth 7, UP"}})"));
  EXPECT_NE(part("cli get/queues", R"({"ok":true,"result":{"text":"depth 10, UP"}})"),
            part("cli get/queues", R"({"ok":true,"result":{"text":"depth 10, DOWN"}})"));
  EXPECT_NE(part("cli x", R"({"ok":false,"error":"is not a valid command"})"),
            part("cli x", R"({"ok":false,"error":"the connection was closed"})"));
  EXPECT_EQ(part("vm show shop", R"({"ok":true,"result":{"uuid":"1"}})"),
            part("vm show shop", R"({"ok":true,"result":{"uuid":"2"}})"));
  EXPECT_FALSE(ComparablePart("cli set/loglevel info", "{}").only_asks);
}

// Two nodes of one day must call their things the same, whatever order their threads ask in, and no two
// things alike.
TEST(InventedIdTest, FollowsFromTheSeedAndTheThing) {
  EXPECT_NE(InventedUuidText("VM shop"), InventedUuidText("VM shop"));
  SeedInventions("a");
  const std::string shop = InventedUuidText("VM shop");
  const std::string desk = InventedUuidText("VM desk");
  const std::string again = InventedUuidText("VM shop");
  EXPECT_NE(shop, desk);
  EXPECT_NE(shop, again);
  SeedInventions("b");
  EXPECT_NE(InventedUuidText("VM shop"), shop);
  SeedInventions("a");
  EXPECT_EQ(InventedUuidText("VM desk"), desk);
  EXPECT_EQ(InventedUuidText("VM shop"), shop);
  EXPECT_EQ(InventedUuidText("VM shop"), again);
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
