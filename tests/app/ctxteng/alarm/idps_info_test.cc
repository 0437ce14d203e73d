#include "app/ctxteng/alarm/idps_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/ctxteng/alarm/entity_id.h"
#include "platform/core/thread.h"
#include "tests/app/ctxteng/alarm/host_tools.h"
#include "tests/app/ctxteng/alarm/recorded_event_source.h"
#include "tests/support/log_capture.h"

namespace IdpsAlarm {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class IdpsInfoTest : public testing::Test {
 protected:
  std::unique_ptr<IdpsInfo> Make(const std::string& dpu_id = "") {
    return std::make_unique<IdpsInfo>(IdpsConditions{.enabled = [this] { return enabled; },
                                                     .has_rules = [this] { return has_rules; },
                                                     .transport_node =
                                                         [this] {
                                                           if (switched_off_meanwhile) enabled = false;
                                                           return std::string("tn-1");
                                                         },
                                                     .dpu_id = dpu_id});
  }
  static uint32_t Sample(std::vector<Ctxt::AlarmEvent>& events, size_t index, uint64_t round) {
    return events[index].sample(round).value_or(0xffff);
  }
  void SetMemory(const std::string& max, const std::string& consumed) {
    tools.Set("memstats", "  group name max consumed\n  4711 zem-idps " + max + " " + consumed + "\n");
  }

  zem::test::LogCapture log;
  zem::test::HostTools tools;
  bool enabled = true;
  bool has_rules = true;
  bool switched_off_meanwhile = false;
};

TEST_F(IdpsInfoTest, OneReadingServesAllLevelsOfThreeRounds) {
  const auto info = Make();
  auto events = info->Events();
  tools.Set("hvprobe", "4711\n");
  SetMemory("200", "151");
  for (size_t level = 0; level < 3; ++level) EXPECT_EQ(Sample(events, level, 1), 75u);
  EXPECT_EQ(tools.TakeJournal(),
            "hvprobe -e set /sched/groupPathNameToID host lum hypermon zem-idps\n"
            "memstats -r group-stats -s name:max:consumed -u mb -g 4711\n");
  SetMemory("200", "190");
  for (uint64_t round = 2; round <= 3; ++round) EXPECT_EQ(Sample(events, 0, round), 75u);
  EXPECT_THAT(tools.TakeJournal(), IsEmpty());
  EXPECT_EQ(Sample(events, 2, 4), 95u);
  EXPECT_THAT(tools.TakeJournal(), testing::Not(HasSubstr("hvprobe"))) << "the group is known";
}

// The process comes back in another group; a reading that fails for good would hide it.
TEST_F(IdpsInfoTest, AFailedReadingLooksTheGroupUpAgain) {
  const auto info = Make();
  auto events = info->Events();
  const struct {
    const char* memory;
    int code;
    const char* line;
  } failures[] = {
      {"4711 zem-idps 200 12\n", 3, "grep finds the line, so the exit code of memstats does not count"},
      {"4711 zem-idps 200\n", 0, "errorCode=\"CTX774\""},
      {"4711 zem-idps unlimited 12\n", 0, "errorCode=\"CTX1301\""},
      {"4711 zem-idps 0 12\n", 0, ""},
      {"4711 zem-idps -1 12\n", 0, ""},
      {"4711 zem-idps 200 9223372036854775807\n", 0, ""},
      {"815 other 200 12\n", 0, "errorCode=\"CTX774\""},
  };
  uint64_t round = 1;
  for (const auto& failure : failures) {
    SCOPED_TRACE(failure.memory);
    tools.Set("hvprobe", "4711\n");
    tools.Set("memstats", failure.memory, failure.code);
    const uint32_t expected = failure.code == 0 ? 0 : 6;
    EXPECT_EQ(Sample(events, 0, round), expected);
    EXPECT_TRUE(failure.code != 0 || log.Contains(failure.line));
    round += 3;
    if (expected != 0) continue;
    tools.TakeJournal();
    EXPECT_EQ(Sample(events, 0, round), 0u);
    EXPECT_THAT(tools.TakeJournal(), HasSubstr("hvprobe"));
    round += 3;
  }
  for (const char* group : {"", "4711 4712\n", "4711;reboot\n"}) {
    SCOPED_TRACE(group);
    tools.Set("hvprobe", group);
    tools.TakeJournal();
    EXPECT_EQ(Sample(events, 0, round++), 0u);
    EXPECT_THAT(tools.TakeJournal(), testing::Not(HasSubstr("memstats")));
  }
}

TEST_F(IdpsInfoTest, TheProcessIsDownOnlyWhenItShouldRun) {
  const auto info = Make();
  auto events = info->Events();
  const auto down = [&] { return Sample(events, 3, 1); };
  tools.Set("ps", "1 init\n");
  EXPECT_EQ(down(), 1u);
  EXPECT_TRUE(log.Contains("errorCode=\"CTX771\""));
  tools.Set("ps", "1 init\n77 zem-idps\n");
  EXPECT_EQ(down(), 0u);
  tools.Set("ps", "");
  enabled = false;
  EXPECT_EQ(down(), 0u);
  enabled = true;
  has_rules = false;
  EXPECT_EQ(down(), 0u);
}

TEST_F(IdpsInfoTest, TheKindOfHostDecidesTheEventNumbers) {
  const auto numbers = [](const std::vector<Ctxt::AlarmEvent>& events) {
    std::vector<std::pair<uint16_t, uint32_t>> all;
    for (const Ctxt::AlarmEvent& event : events) all.emplace_back(event.event_type, event.threshold);
    return all;
  };
  using Pairs = std::vector<std::pair<uint16_t, uint32_t>>;
  EXPECT_EQ(numbers(Make()->Events()), (Pairs{{15, 75}, {17, 85}, {19, 95}, {13, 1}, {83, 0}}));
  const auto with_dpu = Make("dpu \"7\"");
  const auto events = with_dpu->Events();
  EXPECT_EQ(numbers(events), (Pairs{{23, 75}, {33, 85}, {35, 95}, {31, 1}, {83, 0}}));
  EXPECT_EQ(
      events[0].context("n", 80, 75),
      R"({"entity_id":"n","system_resource_usage":80,"system_usage_threshold":75,"dpu_id":"dpu \"7\""})");
}

TEST_F(IdpsInfoTest, TheBrokersAlarmIsRaisedOnlyWhileIntrusionDetectionIsOn) {
  zem::test::RecordedEventSource library;
  const auto info = Make();
  const auto manager = std::make_shared<Ctxt::AlarmMgr<33>>("ids", info->Events(), [] {});
  manager->Start();
  Ctxt::alarms::Register(kFeature, manager);
  EXPECT_TRUE(info->Raise("10.0.0.1:9092,10.0.0.2:9092", true));
  EXPECT_TRUE(library.Get("ids", 83).raised);
  EXPECT_EQ(library.Get("ids", 83).context,
            R"({"transport_node_name":"tn-1","messaging_broker_ip":"10.0.0.1:9092,10.0.0.2:9092"})");
  enabled = false;
  EXPECT_TRUE(info->Raise("b", false));
  EXPECT_FALSE(library.Get("ids", 83).raised);
  EXPECT_FALSE(info->Raise("b", true));
  EXPECT_EQ(library.Get("ids", 83).changes, 2);
  enabled = true;
  switched_off_meanwhile = true;
  EXPECT_FALSE(info->Raise("b", true));
  EXPECT_FALSE(library.Get("ids", 83).raised) << "nobody would clear it";
  Ctxt::alarms::Register(kFeature, nullptr);
}

// A tool that hangs must not hold up the end of the agent.
TEST_F(IdpsInfoTest, AnInterruptEndsACommandThatHangs) {
  const auto info = Make();
  auto events = info->Events();
  tools.Hang("hvprobe");
  zem::NativeThread interrupt([&] { info->Interrupt(); });
  EXPECT_EQ(Sample(events, 0, 1), 0u);
  interrupt.Join();
}

}  // namespace
}  // namespace IdpsAlarm
