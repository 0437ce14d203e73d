#include "app/ctxteng/health/ctxt_health.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "app/ctxteng/base/vm_data.h"
#include "platform/core/virtual_clock.h"
#include "proto/context/ouvi.pb.h"
#include "tests/support/log_capture.h"

namespace Ctxt {
namespace {

using orlane::zem::context::HealthStatusAckMsg;
using orlane::zem::context::HealthStatusMsg;

class CtxtHealthTest : public testing::Test {
 protected:
  void Initialize(bool applies = true) {
    health.Initialize(
        {.applies = applies,
         .register_client =
             [this](const std::string& app_id, const std::string& app_type, CtxtHealth::Callback callback) {
               registered = app_id + " " + app_type;
               on_message = std::move(callback);
             },
         .send =
             [this](const std::shared_ptr<CtxtMsg>& message, bool is_request) {
               EXPECT_TRUE(is_request);
               sent.push_back(message);
               return send_status;
             },
         .guests = [this] { return guests; },
         .read_health =
             [this](std::string* text) {
               *text = health_text;
               return read_status;
             }});
  }
  void Ack(const std::string& type, std::shared_ptr<HealthStatusAckMsg> ack) {
    auto message = std::make_shared<CtxtMsg>();
    message->payloadType = type;
    message->payload = std::move(ack);
    on_message(message);
  }
  std::string Sent(size_t i) {
    return static_cast<const HealthStatusMsg&>(*sent.at(i)->payload).ShortDebugString();
  }

  zem::VirtualClock clock;
  zem::test::LogCapture log;
  CtxtHealth::Guests guests;
  std::string health_text = "no xml";
  uint32_t read_status = 0;
  int send_status = 0;
  std::string registered;
  CtxtHealth::Callback on_message;
  std::vector<std::shared_ptr<CtxtMsg>> sent;
  CtxtHealth health;
};

TEST_F(CtxtHealthTest, AReportGoesToTheManagerAndItsAnswerIsLogged) {
  Initialize();
  EXPECT_EQ(registered, "7777 Context-Health");
  health.SendHealthStatus();
  read_status = 6;
  health.SendHealthStatus();
  health.SendMuxDisconnected();
  EXPECT_EQ(log.Count("CtxtHealth: Sent context"), 2u);
  ASSERT_EQ(sent.size(), 2u) << "nothing is sent when the library has no report";
  EXPECT_THAT(Sent(0), testing::HasSubstr("status_code: 10"));
  EXPECT_THAT(Sent(1), testing::StartsWith("status_code: 12 error_msg: \"zem-context-mux disconnected from "
                                           "Context Engine\" timestamp: "));
  EXPECT_EQ(sent[0]->appId + " " + sent[0]->appType + " " + sent[0]->msgType + " " + sent[0]->payloadType,
            "7777 Context-Health com.orlane.zem.context com.orlane.zem.context.HealthStatusMsg");
  auto ack = std::make_shared<HealthStatusAckMsg>();
  ack->set_status(3);
  ack->set_error_msg("full");
  Ack("com.orlane.zem.context.HealthStatusAckMsg", ack);
  EXPECT_TRUE(log.Contains("ack msg from MP, status: 3, error msg: full"));
  send_status = -1;
  health.SendMuxDisconnected();
  EXPECT_EQ(log.Count("CtxtHealth: Sent context"), 2u) << "the third has not gone out";
  Ack("com.orlane.zem.context.HealthStatusAckMsg", nullptr);
  Ack("com.orlane.zem.context.HealthStatusMsg", ack);
  EXPECT_TRUE(log.Contains("CtxtHealth: Invalid payload type: com.orlane.zem.context.HealthStatusMsg"));
}

TEST_F(CtxtHealthTest, StatisticsAreLoggedEachMinuteWithTheGuestsThatAreSilent) {
  const auto guest = std::make_shared<VmData>();
  guest->vm_events = 1;
  guest->system_events = 2;
  guest->network_events = 3;
  guest->timer_events = 4;
  const auto now = [] {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(zem::Clock::Process().WallNow().time_since_epoch())
            .count());
  };
  guest->last_timer_event = now();
  guests = {{"vm-a", guest}, {"vm-b", std::make_shared<VmData>()}};
  Initialize();
  clock.Settle();
  EXPECT_TRUE(
      log.Contains("CtxtHealth: Stats: vm-a,vmEvents:1,systemEvents:2,timerEvents:4,networkEvents:3,"
                   "vm-b,vmEvents:0,"));
  EXPECT_EQ(log.Count("any timer events for VM vm-b in the past 60 seconds"), 2u) << "logged with both tags";
  EXPECT_EQ(log.Count("any timer events for VM vm-a"), 0u);
  clock.RunFor(std::chrono::seconds(60));
  EXPECT_EQ(log.Count("CtxtHealth: Stats: "), 2u);
  EXPECT_EQ(log.Count("any timer events for VM vm-a in the past 60 seconds"), 2u);
  health.Shutdown();
  EXPECT_TRUE(log.Contains("ContextHealthStatsThread interrupted, exiting"));
  health.Shutdown();
}

TEST_F(CtxtHealthTest, WhereItDoesNotApplyOnlyStatisticsRun) {
  Initialize(false);
  clock.Settle();
  health.SendMuxDisconnected();
  EXPECT_TRUE(registered.empty());
  EXPECT_TRUE(sent.empty());
  EXPECT_EQ(log.Count("CtxtHealth: Stats: "), 1u);
  EXPECT_THROW(CtxtHealth(), std::logic_error);
}

}  // namespace
}  // namespace Ctxt
