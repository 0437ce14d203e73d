#include <gtest/gtest.h>

#include "agent/combined_message.h"
#include "agent/start_watchdog.h"
#include "mpaclient/mpa_client.h"
#include "platform/core/virtual_clock.h"
#include "platform/provider/provider.h"
#include "proto/sha/sha.pb.h"
#include "tests/support/log_capture.h"

namespace zem::Tarvik {
namespace {

using namespace std::chrono_literals;

// The step of a start that hangs is logged every half minute; a start that proceeds logs nothing.
TEST(StartWatchdogTest, NamesTheStepThatHangs) {
  test::LogCapture log;
  VirtualClock clock;
  StartWatchdog watchdog;
  watchdog.Enter("store client");
  clock.RunFor(29s);
  watchdog.Enter("health service");
  clock.RunFor(29s);
  EXPECT_EQ(log.Count("The start has been at the step"), 0u);
  clock.RunFor(33s);
  EXPECT_EQ(log.Count("The start has been at the step \"health service\""), 2u);
}

// Without any connected client the proxy connection is reported down; the rest of the message is fixed.
TEST(CombinedMessageTest, ReportsTheProxyConnection) {
  orlane::zem::sha::AgentsMetricsMsg message;
  BuildCombinedMessage(&message);
  EXPECT_EQ(message.status_data().status(), 1);
  EXPECT_EQ(message.status_data().health(), 1);
  ASSERT_EQ(message.status_data().sub_status_size(), 1);
  EXPECT_EQ(message.status_data().sub_status(0).name(), "tarvik-proxy-connection");
  EXPECT_EQ(message.status_data().sub_status(0).status(), 2);
  ASSERT_EQ(message.status_data().process_status_size(), 1);
  EXPECT_EQ(message.status_data().process_status(0), 1);
  EXPECT_EQ(message.report_kind(), 2);
}

}  // namespace
}  // namespace zem::Tarvik
