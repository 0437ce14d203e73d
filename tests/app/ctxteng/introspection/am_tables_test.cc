#include "app/ctxteng/introspection/am_tables.h"

#include <gmock/gmock.h>

#include "tests/support/log_capture.h"

namespace Ctxt {
namespace {

using testing::IsEmpty;

class AmTablesTest : public testing::Test {
 protected:
  RuleEntry Entry(uint32_t id, const std::string& section, uint64_t order) {
    return {id, "profile", "RA_DETECT", tables.SectionPriority(section).value_or(0), order, section};
  }
  VmChanges Put(uint32_t id, const std::string& section, uint64_t order, const AmTables::Groups& groups) {
    return tables.ReplaceRule(id, {Entry(id, section, order)}, groups);
  }
  uint32_t RuleOf(const std::string& vm) {
    const auto rule = tables.EffectiveRuleOf(vm);
    return rule ? rule->rule_id : 0;
  }
  // "VM:operation:rule" of each change.
  static std::string Text(const VmChanges& changes) {
    std::string text;
    for (const auto& [vm, change] : changes) {
      text += vm + ":" + std::to_string(change.operation) + ":" + std::to_string(change.rule.rule_id) + " ";
    }
    return text;
  }

  AmTables tables;
  AmTables::Groups touched;
};

TEST_F(AmTablesTest, LeastRuleOfAllGroupsWins) {
  tables.SetSection("a", 20, &touched);
  tables.SetSection("b", 10, &touched);
  tables.SetGroups("vm", {"g1", "g2", "g3"});
  EXPECT_EQ(Text(Put(1, "a", 1, {"g1"})), "vm:1:1 ");
  EXPECT_EQ(Text(Put(2, "b", 9, {"g2"})), "vm:1:2 ") << "the section's priority goes before the rule's order";
  EXPECT_EQ(Text(Put(3, "b", 10, {"g2"})), "") << "another rule behind the first one changes nothing";
  EXPECT_EQ(Text(tables.SetSection("b", 30, &touched)), "vm:1:1 ");
  EXPECT_EQ(Text(Put(4, "none", 0, {"g3"})), "vm:1:4 ") << "an unknown section has priority 0";
  EXPECT_EQ(Text(tables.ReplaceRule(4, {}, {})), "vm:1:1 ");
  EXPECT_EQ(Text(tables.ReplaceRule(2, {}, {})), "") << "the VM is served by another group's rule";
  EXPECT_EQ(Text(tables.ReplaceRule(1, {}, {})), "vm:1:3 ");
  EXPECT_EQ(Text(tables.ReplaceRule(3, {}, {})), "vm:2:3 ");
  EXPECT_EQ(RuleOf("vm"), 0U);
}

TEST_F(AmTablesTest, TiesGoToTheSectionsNameAndThenToTheFirstGroup) {
  tables.SetGroups("vm", {"g1", "g2"});
  Put(1, "s2", 1, {"g1"});
  Put(2, "s1", 9, {"g2"});
  EXPECT_EQ(RuleOf("vm"), 2U);
  Put(3, "s1", 9, {"g1"});
  EXPECT_EQ(RuleOf("vm"), 3U);
  EXPECT_EQ(tables.EffectiveGroupOf("vm"), "g1");
}

// The store sends everything again after a connection: nothing may stand twice, or where it no longer
// belongs.
TEST_F(AmTablesTest, RuleThatComesAgainReplacesItself) {
  tables.SetGroups("vm1", {"g1"});
  tables.SetGroups("vm2", {"g2"});
  Put(1, "s", 1, {"g1"});
  EXPECT_EQ(Text(Put(1, "s", 1, {"g1"})), "");
  EXPECT_EQ(Text(Put(1, "s", 1, {"g2"})), "vm1:2:1 vm2:1:1 ");
  EXPECT_EQ(Text(tables.ReplaceRule(1, {}, {})), "vm2:2:1 ");
  EXPECT_THAT(tables.All(), IsEmpty());
}

TEST_F(AmTablesTest, ProfileConcernsTheVmsOfItsRulesAlone) {
  tables.SetGroups("vm1", {"g1"});
  tables.SetGroups("vm2", {"g2"});
  Put(1, "s", 1, {"g1"});
  tables.ReplaceRule(2, {{2, "other", "", 0, 1, "s"}}, {"g2"});
  EXPECT_EQ(Text(tables.SetProfile("profile", {"1", "k", ""})), "vm1:1:1 ");
  EXPECT_EQ(tables.Profile("profile")->vendor_template_key, "k");
  tables.RemoveProfile("profile");
  EXPECT_EQ(tables.Profile("profile"), nullptr);
}

TEST(MpsConfigTest, FieldsThatCannotBeReadStayEmpty) {
  struct Case {
    const char* json;
    MpsConfig config;
    size_t errors;
  };
  const Case cases[] = {
      {R"({"solution_config":{"service_id":"s","solution_id":"1","vendor_template_key":"k"},"file_categories":"PE"})",
       {"1", "k", "PE"},
       0},
      {R"({"solution_config":{"service_id":"s","solution_id":"1"},"file_categories":"PE"})",
       {"1", "", "PE"},
       1},
      {R"({"file_categories":"PE"})", {"", "", "PE"}, 1},
      {R"({"solution_config":{"solution_id":7}})", {}, 4},
      {"{", {}, 1},
      {"", {}, 1},
  };
  const zem::test::LogCapture log;
  size_t errors = 0;
  for (const Case& c : cases) {
    EXPECT_EQ(ReadMpsConfig(c.json), c.config) << c.json;
    errors += c.errors;
    EXPECT_EQ(log.Count("errorCode=\"CTX729\""), errors) << c.json;
  }
}

}  // namespace
}  // namespace Ctxt
