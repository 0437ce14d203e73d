#include "sim/manager/vif_table.h"

#include <gtest/gtest.h>

#include "proto/switching/vif.pb.h"

namespace zem::sim {
namespace {

using orlane::zem::switching::VifAttachmentMsg;
using orlane::zem::switching::VifMsg;

constexpr uint32_t kAttach = 0;
constexpr uint32_t kDetach = 1;

class VifTableTest : public testing::Test {
 protected:
  VifTableTest() {
    table.AddSwitch("web", "zone-1");
    table.AddSwitch("app", "zone-2");
  }

  // The answer; an operation id of "" stands for none.
  VifAttachmentMsg Ask(uint32_t operation, const std::string& vif, const std::string& ls,
                       const std::string& path = "/vm/a.cfg", const std::string& host = "host-1",
                       const std::string& port = "") {
    VifMsg request;
    request.set_operation(operation);
    VifAttachmentMsg* const asked = request.add_vif_attachment();
    asked->set_operation_id("rpc-1");
    asked->set_vif_id(vif);
    asked->set_logical_switch_id(ls);
    asked->set_gcf_path(path);
    asked->set_host_id(host);
    asked->set_logical_port_id(port);
    VifTable::Answer answer = table.Ask(request);
    delay = answer.delay;
    return answer.message ? answer.message->vif_attachment(0) : VifAttachmentMsg();
  }

  VifTable table;
  Duration delay{};
};

TEST_F(VifTableTest, AMoveNamesTheOldPlaceAndAReturnGivesTheOldPortBack) {
  const VifAttachmentMsg first = Ask(kAttach, "vif", "web");
  EXPECT_EQ(first.operation_id(), "rpc-1");
  EXPECT_EQ(first.transport_zone_id(), "zone-1");
  EXPECT_FALSE(first.logical_port_id().empty());
  EXPECT_FALSE(first.has_old_logical_port_id());

  const VifAttachmentMsg moved = Ask(kAttach, "vif", "app");
  EXPECT_EQ(moved.old_logical_switch_id(), "web");
  EXPECT_EQ(moved.old_logical_port_id(), first.logical_port_id());
  EXPECT_EQ(moved.old_transport_zone_id(), "zone-1");
  EXPECT_NE(moved.logical_port_id(), first.logical_port_id());

  // The detach of the place that it has left must not take it off the new one.
  EXPECT_FALSE(Ask(kDetach, "vif", "web").has_logical_port_id());
  EXPECT_EQ(table.Find("vif")->ls, "app");

  EXPECT_EQ(Ask(kDetach, "vif", "app").vif_id(), "vif");
  EXPECT_FALSE(table.Find("vif"));
  const VifAttachmentMsg returned = Ask(kAttach, "vif", "web");
  EXPECT_EQ(returned.logical_port_id(), first.logical_port_id());
  EXPECT_FALSE(returned.has_old_logical_port_id());
}

TEST_F(VifTableTest, ADetachNamesWhatTheManagerKnows) {
  const std::string port = Ask(kAttach, "vif", "web", "/vm/new.cfg").logical_port_id();

  const VifAttachmentMsg other_path = Ask(kDetach, "vif", "web", "/vm/old.cfg");
  EXPECT_EQ(other_path.gcf_path(), "/vm/new.cfg");
  EXPECT_EQ(other_path.logical_port_id(), port);
  EXPECT_FALSE(other_path.has_vif_id());
  EXPECT_TRUE(table.Find("vif"));

  EXPECT_FALSE(Ask(kDetach, "vif", "web", "/vm/new.cfg", "host-2").has_logical_port_id());
  EXPECT_TRUE(table.Find("vif"));

  table.SetRule("vif", {VifRule::Kind::kPort, VifRule::Of::kDetach, "", {}, 1});
  const VifAttachmentMsg port_only = Ask(kDetach, "vif", "web", "/vm/new.cfg");
  EXPECT_EQ(port_only.logical_port_id(), port);
  EXPECT_FALSE(port_only.has_vif_id());
  EXPECT_FALSE(port_only.has_gcf_path());
  EXPECT_FALSE(table.Find("vif"));
}

TEST_F(VifTableTest, RulesHoldForTheirVifOperationAndCount) {
  table.SetRule("", {VifRule::Kind::kError, VifRule::Of::kAttach, "no", {}, -1});
  table.SetRule("quiet", {VifRule::Kind::kSilent, VifRule::Of::kAny, "", {}, 1});
  table.SetRule("lost", {VifRule::Kind::kLost, VifRule::Of::kAttach, "", std::chrono::seconds(3), 1});
  table.SetRule("bare", {VifRule::Kind::kEmptyPort, VifRule::Of::kAttach, "", {}, 1});

  EXPECT_EQ(Ask(kAttach, "vif", "web").error_text(), "no");
  EXPECT_FALSE(table.Find("vif"));

  EXPECT_FALSE(Ask(kAttach, "quiet", "web").has_operation_id());
  EXPECT_FALSE(table.Find("quiet"));
  EXPECT_EQ(Ask(kAttach, "quiet", "web").error_text(), "no") << "its own rule was used up";

  EXPECT_FALSE(Ask(kAttach, "lost", "web").has_operation_id());
  EXPECT_EQ(delay, std::chrono::seconds(3));
  EXPECT_TRUE(table.Find("lost"));

  const VifAttachmentMsg bare = Ask(kAttach, "bare", "web");
  EXPECT_FALSE(bare.has_logical_port_id());
  EXPECT_EQ(bare.transport_zone_id(), "zone-1");

  table.ClearRules();
  EXPECT_EQ(Ask(kAttach, "vif", "nowhere").error_text(), "logical switch [nowhere] is not found");
  const auto records = table.Records("quiet", 0);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].answer, "silence");
  EXPECT_EQ(records[1].answer, "error no");
}

TEST_F(VifTableTest, AHintIsThePortUnlessAnotherVifHasIt) {
  const std::string other = Ask(kAttach, "other", "web").logical_port_id();
  EXPECT_EQ(Ask(kAttach, "vif", "web", "/vm/a.cfg", "host-1", "kept").logical_port_id(), "kept");
  EXPECT_EQ(Ask(kAttach, "vif", "web", "/vm/a.cfg", "host-1", other).logical_port_id(), "kept");
}

TEST_F(VifTableTest, ExtrasAndTheManagersOwnRequestsCarryThePlace) {
  EXPECT_FALSE(table.SetExtras("", "no_such_field: 1").empty());
  ASSERT_EQ(table.SetExtras("", R"(init_port_state { state: "PENDING_CONF" } uplink_teaming_name: "t")"), "");
  const VifAttachmentMsg answer = Ask(kAttach, "vif", "web");
  EXPECT_EQ(answer.init_port_state().state(), "PENDING_CONF");
  EXPECT_EQ(answer.uplink_teaming_name(), "t");

  const auto restore = table.AskRestore("vif", "DONE");
  ASSERT_TRUE(restore);
  EXPECT_EQ(restore->operation(), 3u);
  EXPECT_EQ(restore->vif_attachment(0).state(), "DONE");
  EXPECT_EQ(restore->vif_attachment(0).logical_port_id(), answer.logical_port_id());
  const auto off = table.TakeOff("vif");
  ASSERT_TRUE(off);
  EXPECT_EQ(off->type(), 0u);
  EXPECT_EQ(off->operation(), 1u);
  EXPECT_EQ(off->vif_attachment(0).transport_zone_id(), "zone-1");
  EXPECT_FALSE(table.TakeOff("vif"));
}

}  // namespace
}  // namespace zem::sim
