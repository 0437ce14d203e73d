#include "app/ctxteng/ids/rule_tenants.h"

#include <gtest/gtest.h>

#include "proto/base/tenant_context.pb.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/firewall_objects.pb.h"
#include "tests/support/log_capture.h"

namespace Ctxt {
namespace {

namespace store = orlane::zem::covedb;

constexpr int kSet = 7;
constexpr int kDelete = 8;

class RuleTenantsTest : public testing::Test {
 protected:
  static RuleTenants::Update Update(store::ObjectType type, const google::protobuf::MessageLite& object,
                                    int operation) {
    RuleTenants::Update update;
    update.set_object_type(type);
    update.set_object(object.SerializeAsString());
    store::RuleOpMsg op;
    if (operation != 0) op.set_operation(operation);
    update.set_operation(op.SerializeAsString());
    return update;
  }
  void Rule(uint32_t id, uint32_t type, uint64_t section, int operation = kSet) {
    store::RuleMsg rule;
    rule.set_id(id);
    rule.set_type(type);
    if (section != 0) {
      rule.mutable_section_id()->set_first(0);
      rule.mutable_section_id()->set_second(section);
    }
    tenants.OnRule(Update(store::RULE, rule, operation));
  }
  void Section(uint64_t id, const std::string& org, const std::string& project, const std::string& vpc,
               int operation = kSet, uint32_t type = 5) {
    store::RuleSectionMsg section;
    section.mutable_id()->set_first(0);
    section.mutable_id()->set_second(id);
    section.set_type(type);
    auto* const tenant = section.mutable_tenant_context();
    if (!org.empty()) tenant->set_org(org);
    if (!project.empty()) tenant->set_project(project);
    if (!vpc.empty()) tenant->set_vpc(vpc);
    tenants.OnRuleSection(Update(store::RULE_SECTION, section, operation));
  }

  zem::test::LogCapture log;
  RuleTenants tenants;
};

// An alert that names another tenant shows one customer's attack to another.
TEST_F(RuleTenantsTest, ARuleLeadsToTheTenantOfItsSection) {
  Rule(7, 6, 1);
  EXPECT_EQ(tenants.Text(7), "") << "its section is not known yet";
  EXPECT_TRUE(tenants.HasRules());
  Section(1, "o", "", "v");
  EXPECT_EQ(tenants.Text(7), "[org=\"o\" vpc=\"v\"]: ");
  Section(1, "o", "p", "v");
  EXPECT_EQ(tenants.Text(7), "[org=\"o\" proj=\"p\" vpc=\"v\"]: ");
  Section(2, "", "p", "");
  Rule(7, 6, 2);
  EXPECT_EQ(tenants.Text(7), "") << "without an organisation";
  orlane::zem::TenantContextMsg tenant;
  EXPECT_TRUE(tenants.Fill(7, &tenant));
  EXPECT_EQ(tenant.ShortDebugString(), "org: \"\" project: \"p\" vpc: \"\"");
  EXPECT_FALSE(tenants.Fill(8, &tenant));
  Section(2, "o", "", "", kDelete);
  EXPECT_FALSE(tenants.Fill(7, &tenant));
}

TEST_F(RuleTenantsTest, ARuleGoesWithItsDeletionAndWithItsFeature) {
  Section(1, "o", "", "");
  for (const auto& [type, operation] : {std::pair{6U, kDelete}, {6U, 0}, {3U, kSet}}) {
    Rule(7, 6, 1);
    ASSERT_EQ(tenants.Text(7), "[org=\"o\"]: ");
    Rule(7, type, 1, operation);
    EXPECT_FALSE(tenants.HasRules()) << type << " " << operation;
  }
}

TEST_F(RuleTenantsTest, WhatCannotBeUsedChangesNothing) {
  Section(1, "o", "", "");
  Rule(7, 6, 1);
  Rule(8, 6, 0);
  EXPECT_EQ(log.Count("Ids: rule missing section ID or wrong op, return"), 2U) << "two tags";
  Rule(7, 6, 2, 12);
  Section(1, "x", "", "", 12);
  EXPECT_EQ(log.Count("Ids: rule section missing tenant ctx or wrong op"), 2U);
  Section(1, "x", "", "", kSet, 4);
  EXPECT_TRUE(log.Contains("Ids: rule section is not of type IDS skipping"));
  Section(0, "x", "", "");
  RuleTenants::Update garbage;
  garbage.set_object_type(store::RULE);
  garbage.set_object("\xff\xff");
  tenants.OnRule(garbage);
  tenants.OnRuleSection(garbage);
  EXPECT_TRUE(log.Contains("Failed to parse rule message"));
  EXPECT_TRUE(log.Contains("Ids: CoveDB returned an incorrect msg type: 29, expecting 30"));
  tenants.OnRule(Update(store::RULE, store::RuleMsg(), kSet));
  EXPECT_TRUE(log.Contains("Ids: rule id/type missing from covedb message"));
  EXPECT_EQ(tenants.Text(7), "[org=\"o\"]: ");
  EXPECT_EQ(tenants.Text(8), "");
}

// A rule that was deleted while the store was away sends no deletion.
TEST_F(RuleTenantsTest, WhatTheStoreDoesNotTellAgainIsDropped) {
  Section(1, "o", "", "");
  Section(2, "q", "", "");
  Rule(7, 6, 1);
  Rule(8, 6, 2);
  tenants.StoreBegins();
  Section(1, "o", "", "");
  Rule(7, 6, 1);
  tenants.StoreBegins();  // the connection was lost again
  Rule(7, 6, 1);
  Section(1, "o", "", "");
  Rule(8, 6, 2);
  tenants.StoreComplete();
  EXPECT_EQ(tenants.Text(7), "[org=\"o\"]: ");
  EXPECT_EQ(tenants.Text(8), "") << "its section is gone";
  tenants.StoreBegins();
  tenants.StoreComplete();
  EXPECT_FALSE(tenants.HasRules());
}

}  // namespace
}  // namespace Ctxt
