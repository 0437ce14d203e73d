#include "app/ctxteng/alarm/ouvi_alarm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/app/ctxteng/alarm/recorded_event_source.h"
#include "tests/support/log_capture.h"

namespace Ctxt {
namespace {

constexpr uint16_t kDown = OuviAlarm::kPartnerChannelDown;
constexpr const char* kSource = "OuviZemTarvik";
constexpr const char* kOne = "00000000-0000-0000-0000-000000000001";
constexpr const char* kTwo = "00000000-0000-0000-0000-000000000002";

class OuviAlarmTest : public testing::Test {
 protected:
  OuviAlarmTest() { library.SetConfigs({{kDown, false, 0}}); }

  zem::test::LogCapture log;
  zem::test::RecordedEventSource library;
  OuviAlarm alarm;
};

TEST_F(OuviAlarmTest, AnAlarmStandsUntilItIsResetOrItsEntityIsGone) {
  alarm.Start();
  EXPECT_TRUE(alarm.Raise(kDown, kOne));
  EXPECT_TRUE(alarm.Raise(kDown, kTwo));
  EXPECT_EQ(library.Get(kSource, kDown, 1).context, std::string("{\"entity_id\":\"") + kOne + "\"}");
  EXPECT_TRUE(alarm.Reset(kDown, kOne));
  EXPECT_FALSE(library.Get(kSource, kDown, 1).raised);
  alarm.ResetAll(kDown, kOne);
  EXPECT_TRUE(log.Contains("Resetting no alarm as no entry is found")) << "a reset one is not active";
  alarm.ResetAll(kDown, kTwo);
  EXPECT_EQ(library.Instances(kSource).count({kDown, 2}), 0u);
  alarm.ResetAll(kDown, kTwo);
  EXPECT_TRUE(log.Contains("OuviAlarm:: No active alarms found"));
}

// What the library still shows must be withdrawn at the end, or it stands for good.
TEST_F(OuviAlarmTest, TheEndWithdrawsWhatIsActive) {
  alarm.Start();
  EXPECT_TRUE(alarm.Raise(kDown, kOne));
  EXPECT_TRUE(alarm.Raise(kDown, kTwo));
  library.Fail(zem::test::RecordedEventSource::Call::kSet);
  EXPECT_FALSE(alarm.Reset(kDown, kTwo)) << "the library refuses";
  library.Fail(std::nullopt);
  alarm.Shutdown();
  EXPECT_THAT(library.Instances(kSource), testing::IsEmpty());
  EXPECT_THAT(library.Sources(), testing::IsEmpty());
  EXPECT_FALSE(alarm.Raise(kDown, kOne)) << "without a source";
  alarm.Shutdown();
}

TEST_F(OuviAlarmTest, ADisabledOrUnknownEventIsNotRaised) {
  alarm.Start();
  library.Configure(kSource, {{kDown, true, 0}});
  EXPECT_FALSE(alarm.Raise(kDown, kOne));
  library.Configure(kSource, {{kDown, false, 0}});
  EXPECT_FALSE(alarm.Raise(kDown, "service-1")) << "no uuid";
  EXPECT_FALSE(alarm.Raise(4, kOne));
  EXPECT_TRUE(log.Contains("OuviAlarm: No entry found in eventCfgMap for event: *** Unknown Event Id"));
  EXPECT_TRUE(log.Contains("errorCode=\"CTX801\""));
  EXPECT_EQ(log.Count("errorCode=\"ERR_CTXT_ALARM_SET_ALARM_INST\""), 3u);
  EXPECT_THAT(library.Instances(kSource), testing::IsEmpty());
}

}  // namespace
}  // namespace Ctxt
