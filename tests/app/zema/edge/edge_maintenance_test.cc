#include "app/zema/edge/edge_maintenance.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/process/shutdown_pipe.h"
#include "platform/core/thread.h"
#include "proto/switching/switching.pb.h"
#include "sim/host/edge_service.h"
#include "tests/app/zema/lswitch/fake_sender.h"
#include "tests/support/log_capture.h"

namespace zem::zema {
namespace {

using Kind = sim::EdgeService::Fault::Kind;
using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::IsEmpty;

class EdgeMaintenanceTest : public ::testing::Test {
 protected:
  // Returns the answer to the manager.
  std::string Apply(std::optional<uint32_t> state, Duration limit = seconds(20)) {
    orlane::zem::switching::MaintenanceModeConfigMsg config;
    config.set_transport_node_id("tn");
    config.set_id("m1");
    config.set_revision("7");
    if (state) config.set_state(*state);
    const EdgeMaintenance maintenance(EdgeService({"127.0.0.1", edge_.state().port, limit}), sender_);
    maintenance.Apply({"", "", config.SerializeAsString(), "corr", "reply"});
    const auto sent = sender_.Take();
    return sent.size() == 1 ? sent[0] : "not one answer";
  }
  static std::string Answer(const std::string& state, int code, const std::string& text) {
    return "TnMmode corr reply transport_node_id: \"tn\" id: \"m1\" revision: \"7\" " + state +
           "error_code: " + std::to_string(code) + " error_text: \"" + text + "\"";
  }

  test::LogCapture log_;
  sim::EdgeService edge_{0};
  FakeSender sender_;
};

TEST_F(EdgeMaintenanceTest, TheEdgeChangesTheModeAndTheManagerGetsTheOutcome) {
  for (const uint32_t state : {1, 2}) {
    EXPECT_EQ(Apply(state), Answer("state: 1 ", 0, ""));
    EXPECT_TRUE(edge_.state().maintenance);
    EXPECT_EQ(Apply(0), Answer("state: 3 ", 0, ""));
    EXPECT_FALSE(edge_.state().maintenance);
  }
  EXPECT_THAT(edge_.state().violations, IsEmpty());
  EXPECT_EQ(
      edge_.state().requests[0],
      "PUT /api/v1/node/maintenance-mode HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json; "
      "charset=utf-8 \r\nAccept: */*\r\nContent-Length: 46\r\nConnection: close\r\n\r\n"
      "{\"maintenance_mode\": true, \"notify_mpa\": true}");
  // An unknown state changes nothing.
  EXPECT_EQ(Apply(3), Answer("", 8702, "Invalid mmode setting"));
  EXPECT_EQ(Apply(std::nullopt), Answer("", 8702, "Invalid mmode setting"));
  EXPECT_EQ(edge_.state().requests.size(), 4u);
}

TEST_F(EdgeMaintenanceTest, EveryAnswerOfTheEdgeIsReportedToTheManager) {
  struct Case {
    sim::EdgeService::Fault fault;
    std::string answer;
  };
  const Case cases[] = {
      {{Kind::kStatus, 503}, Answer("", 8702, "Maintenance mode action request returned: 503")},
      {{Kind::kBody, 0, "mode is enabled"}, Answer("state: 1 ", 0, "")},
      {{Kind::kBody, 0, "nothing"}, Answer("", 8702, "Invalid response data")},
      {{Kind::kRaw, 0, "SSH-2.0-edge\r\n"}, Answer("", 8702, "Invalid response")},
      {{Kind::kRaw, 0, "HTTP/1.1 200 OK\r\nServer: x\r\n"},
       Answer("", 8702, "The response\\'s headers have no end")},
      {{Kind::kRaw, 0, "HTTP/1.0 200\r\n\r\ndisabled"}, Answer("state: 3 ", 0, "")},
      // The answer is complete, so the end of the connection is not awaited.
      {{Kind::kHold, 0, "HTTP/1.1 200 OK\r\ncontent-length: 9\r\n\r\n\"enabled\""},
       Answer("state: 1 ", 0, "")},
      {{Kind::kClose}, Answer("", 8702, "Invalid response")},
      {{Kind::kLate, 0, "", milliseconds(50)}, Answer("state: 1 ", 0, "")},
      {{Kind::kRaw, 0, std::string(EdgeService::kLongestAnswer + 1, 'x')},
       Answer("", 8702, "Failed to read response: Message too long")},
  };
  for (const Case& c : cases) {
    edge_.Add(c.fault);
    EXPECT_EQ(Apply(1), c.answer);
  }
  edge_.Add({Kind::kNever});
  EXPECT_EQ(Apply(1, milliseconds(50)), Answer("", 8702, "Failed to read response: Connection timed out"));
  edge_.Stop();
  EXPECT_EQ(Apply(1), Answer("", 8702, "Connection not extablished: Connection refused"));
  EXPECT_TRUE(log_.Contains("errorCode=\"MPA44102\"] [SendActionToEdgeService] Connection not extablished"));
}

TEST_F(EdgeMaintenanceTest, TheShutdownEndsTheWait) {
  ASSERT_TRUE(Tarvik::OpenShutdownPipe());
  edge_.Add({Kind::kNever});
  NativeThread stopper([this] {
    while (edge_.state().requests.empty()) SleepFor(milliseconds(1));
    Tarvik::CloseShutdownPipe();
  });
  EXPECT_EQ(Apply(1, seconds(600)), Answer("", 8702, "Failed to read response: Operation canceled"));
}

TEST(EdgeServiceTest, OnlyAWholeStatusLineCounts) {
  std::string error;
  using Outcome = EdgeService::Outcome;
  EXPECT_EQ(EdgeService::ReadAnswer("HTTP/1.1 200 OK\r\nA: b\r\n\r\nenabled", &error), Outcome::kEnabled);
  for (const char* answer : {"", "HTTP/1.1", "HTTP/1.1 2000 OK\r\n\r\nenabled", "HTTP/2 200\r\n\r\nenabled",
                             "HTTP/1.1 abc\r\n\r\nenabled", "HTTP/1.1 20\r\n\r\nenabled"}) {
    EXPECT_EQ(EdgeService::ReadAnswer(answer, &error), Outcome::kFailed) << answer;
  }
}

}  // namespace
}  // namespace zem::zema
