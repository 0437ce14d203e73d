#include "app/ctxteng/alarm/ids_alarm_reporter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/app/ctxteng/alarm/host_tools.h"
#include "tests/app/ctxteng/alarm/recorded_event_source.h"
#include "tests/support/log_capture.h"

namespace IdsPollAlarm {
namespace {

constexpr const char* kSource = "ctxteng_ids_poll";

class IdsAlarmReporterTest : public testing::Test {
 protected:
  bool Raised(uint16_t event_type) { return library.Get(kSource, event_type, 1).raised; }

  zem::test::LogCapture log;
  zem::test::RecordedEventSource library;
  zem::test::HostTools tools;
  bool enabled = true;
  bool bypassed = false;
  bool dropped = false;
  IdsAlarmReporter reporter{{.enabled = [this] { return enabled; },
                             .bypassed = [this] { return bypassed; },
                             .dropped = [this] { return dropped; },
                             .pcap_dir_path = "/var/log/o'clock/pcaps"}};
};

TEST_F(IdsAlarmReporterTest, APollReportsWhatTheFirewallFound) {
  reporter.Initialize();
  bypassed = true;
  library.Poll(kSource, {55, 63, 99});
  EXPECT_TRUE(Raised(55));
  EXPECT_FALSE(Raised(63));
  EXPECT_THAT(library.Get(kSource, 55, 1).context,
              testing::StartsWith("{\"entity_id\": \"00000000-0000-0000-0000-000000000001\", "
                                  "\"transport_node_name\": \""));
  EXPECT_TRUE(log.Contains("IdsAlarmReporter: Unknown event type ID 99 alarm processed"));
  library.Poll(kSource, {55});
  EXPECT_EQ(log.Count("Successful to raise ids network oversub bypass alarm"), 1u) << "only the change";
  enabled = false;
  library.Poll(kSource, {55});
  EXPECT_FALSE(Raised(55));
  enabled = true;
  library.Configure(kSource, {{55, true, 0}});
  library.Poll(kSource, {55});
  EXPECT_FALSE(Raised(55)) << "disabled";
}

TEST_F(IdsAlarmReporterTest, TheFolderOfCapturesIsFullAboveItsLimit) {
  reporter.Initialize();
  const struct {
    const char* output;
    bool full;
  } cases[] = {{"31936 /var/log\n", false},
               {"31937 /var/log\n", true},
               {"", false},
               {"many /var/log\n", false},
               {"31937\n", true}};
  for (const auto& each : cases) {
    SCOPED_TRACE(each.output);
    tools.Set("du", each.output);
    library.Poll(kSource, {77});
    EXPECT_EQ(Raised(77), each.full);
  }
  EXPECT_THAT(tools.TakeJournal(), testing::HasSubstr("du -k /var/log/o'clock/pcaps\n"));
  EXPECT_TRUE(log.Contains("errorCode=\"CTX1301\""));
}

TEST_F(IdsAlarmReporterTest, AFailedStartLeavesNoSourceAndAnAlarmThatIsNotTakenIsReportedAgain) {
  using Call = zem::test::RecordedEventSource::Call;
  for (const Call call : {Call::kCreate, Call::kConfigCallback, Call::kPollCallback, Call::kStart}) {
    library.Fail(call);
    reporter.Initialize();
    EXPECT_EQ(log.Count("errorCode=\"CTX701\""), 1u);
    EXPECT_THAT(library.Sources(), testing::IsEmpty());
    log.Clear();
  }
  library.Fail(std::nullopt);
  reporter.Initialize();
  bypassed = true;
  library.Fail(Call::kSet);
  library.Poll(kSource, {55});
  EXPECT_TRUE(log.Contains("IdsAlarmReporter: Failed to raise ids alarm: 55"));
  library.Fail(std::nullopt);
  library.Poll(kSource, {55});
  EXPECT_EQ(log.Count("Successful to raise"), 1u);
  tools.Set("du", "31937 /var/log\n");
  library.Poll(kSource, {77});
  EXPECT_TRUE(Raised(77)) << "the failed starts have not ended this check";
}

}  // namespace
}  // namespace IdsPollAlarm
