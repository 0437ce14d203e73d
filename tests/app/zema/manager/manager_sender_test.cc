#include "app/zema/manager/manager_sender.h"

#include "app/zema/manager/manager_replies.h"
#include "app/zema/state/realization_options.h"
#include "platform/timeline/operation.h"
#include "proto/switching/switching.pb.h"
#include "proto/switching/vif.pb.h"
#include "tests/mpaclient/channel_fixture.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* kSwitching = "SwitchingVertical";

class ManagerSenderTest : public ChannelTest {
 protected:
  // On a thread of its own, as the realization's: it waits.
  bool Send(const std::string& type, const std::string& correlation, const std::string& reply_to,
            const std::string& data = "") {
    return sender.SendMsg(std::string("com.orlane.zem.switching.") + type, data, correlation, reply_to,
                          nullptr);
  }

  sim::Received Last() { return manager->record().ReceivedFrom(kSwitching, 0).back(); }

  OptionsStore options;
  VerticalClient vertical{provider, GetVertical(VerticalId::kSwitching), {}};
  ManagerSender sender{vertical, options};
};

// Each type goes as the record and under the correlation that it has.
TEST_F(ManagerSenderTest, TypesAndCorrelations) {
  StartManager();
  Register(kSwitching);
  proxy_client->Start();
  clock.RunFor(seconds(6));
  ASSERT_TRUE(Send("VifMsg", "mine", ""));
  clock.RunFor(milliseconds(10));
  EXPECT_EQ(Last().correlation_id, "vif_msg_rpc_correlation_id");
  EXPECT_FALSE(Last().publish);
  ASSERT_TRUE(Send("ChecksumMsg", "", "reply-to"));
  clock.RunFor(milliseconds(10));
  EXPECT_EQ(Last().correlation_id, "mp_rpc_correlation_id");
  // An answer without an open call finds its asker by the reply-to; without one it has nowhere to go.
  ASSERT_TRUE(Send("HostConfigMsg", "c-7", kAph2));
  clock.RunFor(milliseconds(10));
  EXPECT_EQ(Last().correlation_id, "c-7");
  EXPECT_EQ(Last().aph, kAph2);
  EXPECT_FALSE(Send("HostSwitchMsg", "", ""));
  EXPECT_TRUE(
      log.Contains("[SendMsg] Unsupported message type com.orlane.zem.switching.HostSwitchMsg to MPA"));
}

// What no proxy can take is given up at once; what lacks a road goes to another proxy, an answer whose asker
// has gone too.
TEST_F(ManagerSenderTest, OnlyAMissingRoadIsTriedElsewhere) {
  StartManager();
  Register(kSwitching);
  proxy_client->Start();
  clock.RunFor(seconds(6));
  const TimePoint begin = clock.Now();
  EXPECT_FALSE(Send("VifMsg", "", "", "\xff\xff"));
  EXPECT_FALSE(Send("HostConfigMsg", "nobody asked", "")) << "no call and no reply-to";
  EXPECT_EQ(log.Count("trying Secondary APH"), 0u);
  ASSERT_TRUE(Send("HostConfigMsg", "c-8", "0a000000-0000-4000-8000-000000000009"));
  clock.RunFor(milliseconds(10));
  EXPECT_EQ(Last().correlation_id, "c-8");
  EXPECT_EQ(log.Count("trying Secondary APH"), 1u);
  EXPECT_LT(clock.Now() - begin, seconds(1));
}

// Without the manager a message waits as long as leaves time for an answer, then it is dropped.
TEST_F(ManagerSenderTest, WaitsForTheManager) {
  Register(kSwitching);
  proxy_client->Start();
  const TimePoint begin = clock.Now();
  EXPECT_FALSE(Send("VifMsg", "", ""));
  EXPECT_EQ(clock.Now() - begin, seconds(15));
  EXPECT_EQ(log.Count("Not connected to MPA, retrying..."), 15u);
  EXPECT_EQ(log.Count("Not connected to MPA, dropped message to MPA"), 1u);
  StartManager();
  EXPECT_TRUE(Send("VifMsg", "", "")) << "it comes while the message waits";
}

TEST_F(ManagerSenderTest, VifMessages) {
  StartManager();
  Register(kSwitching);
  proxy_client->Start();
  clock.RunFor(seconds(6));
  std::string message_id;
  ASSERT_TRUE(sender.SendVIFAttachmentInfo({true, "op-1", "vif", "ls", "", "host", "/vm.x"}, &message_id));
  clock.RunFor(milliseconds(10));
  EXPECT_EQ(Last().tracking_id, message_id) << "the id that is logged is the one that was sent";
  EXPECT_THAT(Last().json, ::testing::HasSubstr(R"("operation":0)"));
  EXPECT_THAT(Last().json, ::testing::Not(::testing::HasSubstr("logical_port_id")));
  ASSERT_TRUE(sender.SendVIFAttachmentInfo({false, "op-2", "vif", "ls", "lp", "host", "/vm.x"}, &message_id));
  clock.RunFor(milliseconds(10));
  EXPECT_THAT(Last().json, ::testing::HasSubstr(R"("operation":1)"));
  ASSERT_TRUE(sender.SendVIFUpdate({"op-3", "vif", "ls", "lp", "host", {{"tag", "1"}}}));
  clock.RunFor(milliseconds(10));
  EXPECT_THAT(Last().json, ::testing::HasSubstr(R"("operation":2)"));
  EXPECT_THAT(Last().json, ::testing::HasSubstr(R"("site_config":[{"key":"tag","value":"1"}])"));
}

// A restore's answer is worth four tries, a quarter of a minute apart.
TEST_F(ManagerSenderTest, RestoreResponseIsTriedFourTimes) {
  Register(kSwitching);
  proxy_client->Start();
  const TimePoint begin = clock.Now();
  EXPECT_FALSE(sender.SendVIFRestoreResponse({"m-1", "vif", "ls", "lp", "host", "done", ""}));
  EXPECT_EQ(clock.Now() - begin, 4 * seconds(15) + 3 * seconds(15));
  EXPECT_TRUE(log.Contains("Error sending VIF Restore message ID [m-1] for VIF [vif]. Retries left: [0]"));
  EXPECT_TRUE(log.Contains("VIF Restore [m-1] reply not sent. Retries exhausted."));
}

// An answer of failure must not stand as done when an operator asks why.
TEST_F(ManagerSenderTest, AnAnswerOfFailureEndsItsOperation) {
  StartManager();
  Register(kSwitching);
  proxy_client->Start();
  clock.RunFor(seconds(6));
  ManagerReplies replies(sender);
  const auto error_of = [](const auto& send) {
    const timeline::OperationPtr operation = timeline::Begin(timeline::Kind::kHostSetting, "setting", {});
    {
      const timeline::Scope scope(operation);
      send();
    }
    const timeline::OperationReading reading = operation->Read();
    return reading.state == timeline::State::kFailed ? reading.error : "(not failed)";
  };
  switching::MaintenanceModeConfigResultMsg mode;
  switching::VTEPRecoveryResultMsg recovery;
  switching::VTEPAdminStateMgmtResultMsg state;
  switching::HostProfileMsg profile;
  switching::LogicalSwitchBulkMsg sync;
  recovery.set_result_text("sent");
  profile.set_status(1);
  const auto errors = [&] {
    return std::vector<std::string>{
        error_of([&] { replies.TnMmodeConfigReply("c", kAph1, mode); }),
        error_of([&] { replies.VtepRecoveryReply("c", kAph1, recovery); }),
        error_of([&] { replies.VtepAdminStateReply("c", kAph1, state); }),
        error_of([&] { replies.HostProfileReply("c", kAph1, profile); }),
        error_of([&] { replies.LogicalSwitchFullSyncReply("c", kAph1, sync); }),
    };
  };
  EXPECT_EQ(errors(), std::vector<std::string>(5, "(not failed)"));
  mode.set_error_code(8750);
  recovery.set_result(-1);
  state.set_result(22);
  profile.set_status(2);
  profile.set_error_text("no such profile");
  sync.set_status(1);
  EXPECT_EQ(errors(),
            (std::vector<std::string>{"ErrorCode=8750", "sent", "Result=22", "no such profile", "Status=1"}));
  timeline::Clear();
}

}  // namespace
}  // namespace zem::zema
