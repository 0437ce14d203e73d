#include <gtest/gtest.h>

#include "app/zema/vif/prior_attachments.h"
#include "app/zema/vif/vif_context.h"

namespace zem::zema {
namespace {

TEST(PriorAttachmentsTest, OnlyTheSameOperationReturnsToItsPort) {
  PriorAttachments prior;
  prior.Note("vif", "/vm/a", {"ls-1", "ls-2", "z1", "lp-1", "op-7"});
  EXPECT_EQ(prior.PortToReturnTo("vif", "ls-1", "/vm/b", "op-7"), "");
  EXPECT_EQ(prior.PortToReturnTo("vif", "ls-1", "/vm/a", "op-7"), "lp-1");
  EXPECT_EQ(prior.PortToReturnTo("vif", "ls-1", "/vm/a", "op-7"), "lp-1");
  // Another operation on the VM ends what was noted of the one before.
  EXPECT_EQ(prior.PortToReturnTo("vif", "ls-1", "/vm/a", "op-8"), "");
  EXPECT_EQ(prior.PortToReturnTo("vif", "ls-1", "/vm/a", "op-7"), "");

  ASSERT_TRUE(prior.Find("vif", "/vm/a"));
  EXPECT_EQ(prior.Find("vif", "/vm/a")->old_zone, "z1");
  EXPECT_FALSE(prior.Take("vif", "/vm/b"));
  ASSERT_TRUE(prior.Take("vif", "/vm/a"));
  EXPECT_FALSE(prior.Find("vif", "/vm/a"));
}

TEST(PriorAttachmentsTest, OldestGoWhenThereAreTooMany) {
  PriorAttachments prior;
  for (int i = 0; i < 5000; ++i) {
    prior.Note("vif", "/vm/" + std::to_string(i), {"ls-1", "ls-2", "z1", "lp", "op"});
  }
  EXPECT_FALSE(prior.Find("vif", "/vm/0"));
  EXPECT_EQ(prior.PortToReturnTo("vif", "ls-1", "/vm/0", "op"), "");
  EXPECT_TRUE(prior.Find("vif", "/vm/4999"));
  EXPECT_TRUE(prior.Find("vif", "/vm/1000"));
}

TEST(VifContextTest, StepsOfOneOperationShareTheStem) {
  EXPECT_EQ(OpIdStem("op-7-1"), OpIdStem("op-7-12"));
  EXPECT_NE(OpIdStem("op-7-1"), OpIdStem("op-8-1"));
  EXPECT_EQ(OpIdStem("op"), "op");
}

}  // namespace
}  // namespace zem::zema
