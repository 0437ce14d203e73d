#include "app/ctxteng/alarm/alarm_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/ctxteng/alarm/entity_id.h"
#include "platform/core/virtual_clock.h"
#include "tests/app/ctxteng/alarm/recorded_event_source.h"
#include "tests/support/log_capture.h"

namespace Ctxt {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

constexpr uint16_t kShare = 15;   // raised when half of four samples reach 75
constexpr uint16_t kSingle = 13;  // raised by one sample
constexpr uint16_t kPosted = 83;
constexpr const char* kSource = "ctxteng_ids";
constexpr const char* kOther = "00000000-0000-0000-0000-000000000007";
const std::string kNode(kNodeEntity);

class AlarmManagerTest : public testing::Test {
 protected:
  std::vector<AlarmEvent> Events() {
    return {{.event_type = kShare,
             .sample = [this](uint64_t) { return values.empty() ? std::nullopt : std::optional(Next()); },
             .context =
                 [](const std::string&, uint32_t value, uint32_t threshold) {
                   return std::to_string(value) + " of " + std::to_string(threshold);
                 },
             .samples = 4,
             .percent = 50,
             .threshold = 75},
            {.event_type = kSingle,
             .sample = [this](uint64_t) { return std::optional(single); },
             .context = {},
             .threshold = 1},
            {.event_type = kPosted, .sample = {}, .context = {}}};
  }
  uint32_t Next() {
    const uint32_t value = values.front();
    values.erase(values.begin());
    return value;
  }
  zem::test::RecordedEventSource::Instance Instance(uint16_t event_type, uint64_t entity = 0) {
    return library.Get(kSource, event_type, entity);
  }
  // Time as the worker sees it.
  void Pass(zem::Duration duration) { clock.RunFor(duration); }

  zem::VirtualClock clock;
  zem::test::LogCapture log;
  zem::test::RecordedEventSource library;
  std::vector<uint32_t> values;
  uint32_t single = 0;
  AlarmMgr<33> manager{kSource, Events(), [] {}};
};

// An alarm that follows single samples instead of their share would flap with every peak.
TEST_F(AlarmManagerTest, TheShareOfSamplesDecidesAndTheContextHasTheirMean) {
  manager.Start();
  manager.AddEntity(kNode, 0);
  values = {10, 90, 80, 20};
  Pass(minutes(3));
  EXPECT_EQ(Instance(kShare).changes, 0) << "three of four samples decide nothing";
  Pass(minutes(1));
  EXPECT_TRUE(Instance(kShare).raised);
  EXPECT_EQ(Instance(kShare).context, "50 of 75");
  values = {10, 90, 20, 30};
  Pass(minutes(4));
  EXPECT_FALSE(Instance(kShare).raised);
  EXPECT_EQ(Instance(kShare).changes, 2);
  // No sample that counts: neither kept nor reported.
  Pass(minutes(4));
  EXPECT_EQ(Instance(kShare).changes, 2);
}

TEST_F(AlarmManagerTest, ADisabledEventForgetsItsSamplesAndTakesANewThreshold) {
  manager.Start();
  manager.AddEntity(kOther, kShare);
  values = {90, 90, 90};
  Pass(minutes(3));
  library.Configure(kSource, {{kShare, true, 20}, {55, true, 0}});
  EXPECT_TRUE(manager.IsDisabled(kShare));
  EXPECT_FALSE(manager.IsDisabled(kSingle));
  Pass(minutes(1));
  library.Configure(kSource, {{kShare, false, 20}});
  values = {30, 30, 10, 10};
  Pass(minutes(3));
  EXPECT_EQ(Instance(kShare, 7).changes, 0) << "samples from before count again";
  Pass(minutes(1));
  EXPECT_TRUE(Instance(kShare, 7).raised);
  EXPECT_EQ(Instance(kShare, 7).context, "20 of 20");
  EXPECT_EQ(Instance(kSingle).changes, 0) << "an entity of one event is sampled for another";
}

TEST_F(AlarmManagerTest, EntitiesComeAndGo) {
  manager.Start();
  manager.AddEntity(kNode, 0);
  manager.AddEntity(kNode, 0);
  EXPECT_EQ(log.Count("is added to event type"), 3u);
  single = 1;
  Pass(minutes(1));
  EXPECT_TRUE(Instance(kSingle).raised);
  EXPECT_EQ(Instance(kSingle).context, "{\"entity_id\":\"00000000-0000-0000-0000-000000000000\"}");
  manager.RemoveEntity(kNode, 0);
  Pass(minutes(2));
  EXPECT_EQ(Instance(kSingle).changes, 1);
}

TEST_F(AlarmManagerTest, AResetClearsTheNodesAlarmsThatAreNotDisabled) {
  manager.Start();
  EXPECT_EQ(manager.PostAlarm(kNode, kPosted, "{}", true), kEventSourceOk);
  EXPECT_EQ(manager.PostAlarm(kNode, kShare, "{}", true), kEventSourceOk);
  EXPECT_EQ(manager.PostAlarm(kNode, kSingle, "{}", true), kEventSourceOk);
  manager.UpdateEventConfig(kSingle, true, 1);
  alarms::Register(33, std::shared_ptr<IAlarmMgr>(&manager, [](IAlarmMgr*) {}));
  alarms::ResetAllAlarms(33);
  alarms::Register(33, nullptr);
  alarms::ResetAllAlarms(33);
  EXPECT_TRUE(log.Contains("AlarmMgr: Reset Alarms feature id: 33 not found"));
  EXPECT_FALSE(Instance(kPosted).raised);
  EXPECT_FALSE(Instance(kShare).raised);
  EXPECT_EQ(Instance(kShare).context, "0 of 75");
  EXPECT_TRUE(Instance(kSingle).raised);
  library.Fail(zem::test::RecordedEventSource::Call::kSet);
  EXPECT_EQ(manager.PostAlarm("no uuid", kPosted, "{}", true), kEventSourceInvalidArgument);
  EXPECT_EQ(manager.PostAlarm(kNode, kPosted, "{}", true), kEventSourceInvalidArgument);
  EXPECT_TRUE(log.Contains("AlarmMgr: Raise Alarm failed, status: 1"));
}

// Each step of the start may fail; the manager then samples without a source and leaves none behind.
TEST_F(AlarmManagerTest, WithoutAnEventSourceNothingIsPosted) {
  using Call = zem::test::RecordedEventSource::Call;
  const std::pair<Call, const char*> steps[] = {{Call::kCreate, "errorCode=\"CTX804\""},
                                                {Call::kConfigCallback, "errorCode=\"CTX806\""},
                                                {Call::kStart, "errorCode=\"CTX805\""}};
  for (const auto& [call, tag] : steps) {
    library.Fail(call);
    manager.Start();
    EXPECT_TRUE(log.Contains(tag));
    EXPECT_TRUE(log.Contains("AlarmMgr: Alarm service is not started"));
    EXPECT_EQ(manager.PostAlarm(kNode, kPosted, "{}", true), kEventSourceNoHandle);
    EXPECT_THAT(library.Sources(), testing::IsEmpty());
    manager.Stop();
    log.Clear();
  }
  library.Fail(std::nullopt);
  manager.Start();
  EXPECT_EQ(manager.PostAlarm(kNode, kPosted, "{}", true), kEventSourceOk) << "the second try";
}

}  // namespace
}  // namespace Ctxt
