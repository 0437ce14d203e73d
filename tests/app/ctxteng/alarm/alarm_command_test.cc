#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/ctxteng/alarm/alarm_command.h"
#include "app/ctxteng/alarm/alarm_registry.h"
#include "framework/cli/cli_reply_queue.h"
#include "tests/support/log_capture.h"

namespace Ctxt {
namespace {

using testing::ElementsAre;

class RecordingManager final : public IAlarmMgr {
 public:
  uint16_t feature_id() const override { return 33; }
  void Start() override {}
  void Stop() override {}
  void ResetAllAlarms() override {}
  void AddEntity(const std::string& entity, uint16_t type) override {
    calls.push_back("add " + entity + " " + std::to_string(type));
  }
  void RemoveEntity(const std::string&, uint16_t) override {}
  int PostAlarm(const std::string& entity, uint16_t type, const std::string&, bool raised) override {
    calls.push_back("post " + entity + " " + std::to_string(type) + (raised ? " up" : " down"));
    return 0;
  }
  void UpdateEventConfig(uint16_t type, bool disabled, uint32_t threshold) override {
    calls.push_back((disabled ? "off " : "threshold ") + std::to_string(type) + " " +
                    std::to_string(threshold));
  }
  bool IsDisabled(uint16_t type) const override { return type == 19; }

  std::vector<std::string> calls;
};

std::string RunCommand(const std::vector<std::string>& arguments) {
  const auto queue = std::make_shared<zem::Tarvik::CliReplyQueue>();
  queue->Open();
  const auto command = SetAlarmCommand();
  command.handler(arguments, zem::Tarvik::CliReply(queue, 1));
  const auto answers = queue->Take();
  return answers.size() == 1 ? answers[0].text : std::to_string(answers.size()) + " answers";
}

// An operator's threshold must reach the event that he named, in whatever base, and no other feature.
TEST(SetAlarmTest, ThresholdsReachTheManagerOfTheFeature) {
  zem::test::LogCapture log;
  EXPECT_EQ(RunCommand({"15", "80"}), "FeatureId invalid, threshold not set");
  EXPECT_TRUE(log.Contains(" FeatureId 33 is Invalid "));
  const auto manager = std::make_shared<RecordingManager>();
  alarms::Register(33, manager);
  EXPECT_EQ(RunCommand({"0x0f", "80"}), "Status OK");
  EXPECT_EQ(RunCommand({"35", "0x10"}), "Status OK");
  EXPECT_EQ(RunCommand({"65551", "7"}), "Status OK") << "the event type has 16 bits";
  EXPECT_EQ(RunCommand({"19", "90"}), "Status OK");
  EXPECT_EQ(RunCommand({"13", "1"}), "Event type not supported via this CLI, threshold not set");
  EXPECT_TRUE(log.Contains("CliServer: Setting threshold 16 on IDS Alarms EventTypeId: 35"));
  alarms::AddEntity(33, "e", 15);
  alarms::PostAlarm(33, "e", 15, "{}", true);
  alarms::PostAlarm(34, "e", 15, "{}", true);
  alarms::Register(33, nullptr);
  alarms::AddEntity(33, "f", 15);
  EXPECT_THAT(manager->calls, ElementsAre("threshold 15 80", "threshold 35 16", "threshold 15 7", "off 19 90",
                                          "add e 15", "post e 15 up"));
}

}  // namespace
}  // namespace Ctxt
