// The work that follows a host configuration: the hot swap's back-off, and the wait for the maintenance mode.

#include <gtest/gtest.h>

#include "app/zema/covedb/config_files.h"
#include "app/zema/hostconfig/high_performance_profile_task.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/hostswitch/high_performance_profile.h"
#include "app/zema/migration/ckln_hot_swap_task.h"
#include "proto/switching/switching.pb.h"
#include "tests/app/zema/lswitch/fake_sender.h"
#include "tests/app/zema/proxy/fake_lum_commands.h"
#include "tests/support/temp_dir.h"

namespace zem::zema {
namespace {

TEST(CklnHotSwapTaskTest, TriesMoreAndMoreRarelyAndWithoutEnd) {
  FakeLumCommands lum;
  lum.Script("HotSwapUnusedCkln()", {"in use"});
  std::unique_ptr<Runnable> next;
  std::vector<int> delays;
  const CklnHotSwapTask::Schedule schedule = [&](std::unique_ptr<Runnable> task, int delay) {
    next = std::move(task);
    delays.push_back(delay);
  };
  next = std::make_unique<CklnHotSwapTask>(lum, schedule, 30);
  for (int i = 0; i < 48; ++i) {
    const auto task = std::move(next);
    task->Run();
    ASSERT_NE(next, nullptr);
  }
  const std::map<int, int> expected = {{1, 30},   {7, 30},   {8, 60},   {15, 60}, {16, 120},
                                       {24, 240}, {32, 480}, {40, 600}, {48, 600}};
  for (const auto& [failures, delay] : expected) EXPECT_EQ(delays[failures - 1], delay) << failures;

  lum.Script("HotSwapUnusedCkln()", {"ok"});
  const auto last = std::move(next);
  last->Run();
  EXPECT_EQ(next, nullptr) << "done";
  lum.Script("HotSwapUnusedCkln()", {"in use"});
  CklnHotSwapTask(lum, schedule, 0).Run();
  EXPECT_EQ(next, nullptr) << "one try only";
}

class HighPerformanceTaskTest : public ::testing::Test {
 protected:
  HighPerformanceTaskTest() : files_({directory_.Path("host_config.bin"), directory_.Path("mmode.bin")}) {
    orlane::zem::switching::HostConfigMsg config;
    config.set_id("c1");
    config.set_transport_node_id("tn");
    auto* const host_switch = config.add_host_switches();
    host_switch->set_id("sw");
    host_switch->set_name("ks-1");
    host_switch->mutable_profiles()->mutable_high_performance_profile()->add_config();
    EXPECT_EQ(files_.PersistHostConfigToFile(config), 0);
    HighPerformanceSettings settings;
    settings.set_host_prop = [this](const std::string&, const std::string&, const std::string& value) {
      property_ = value;
      return 0u;
    };
    settings.clear_host_prop = [this](const std::string&, const std::string&) {
      property_.reset();
      return 0u;
    };
    settings.has_host_prop = [this](const std::string&, const std::string&) { return property_.has_value(); };
    settings.run = [this](const std::string&, std::string*) {
      ++runs_;
      return script_result_;
    };
    profile_ = std::make_unique<HighPerformanceProfile>(std::move(settings));
  }

  // The host enters the mode after `pauses` pauses; with -1 the agent stops at the first.
  void Run(int pauses) {
    lum_.Script("fetchMMode()", {"false"});
    int paused = 0;
    HighPerformanceProfileTask::Settings settings{lum_, files_, *profile_, &sender_};
    settings.host_prop = [this](const std::string&, const std::string&, std::string* value) {
      *value = property_.value_or("");
      return property_ ? 0u : kSwitchNotFound;
    };
    settings.retry_interval = [] { return 60; };
    settings.pause = [&, pauses](Duration duration) {
      EXPECT_EQ(duration, std::chrono::seconds(60));
      if (pauses < 0) return false;
      if (++paused == pauses) lum_.Script("fetchMMode()", {"true"});
      return paused < 100;
    };
    settings.done = [this] { ++done_; };
    HighPerformanceProfileTask(std::move(settings)).Run();
  }

  test::TempDir directory_;
  ConfigFiles files_;
  FakeLumCommands lum_;
  FakeSender sender_;
  std::optional<std::string> property_ = "maintenance_mode";
  int script_result_ = 0;
  int runs_ = 0;
  int done_ = 0;
  std::unique_ptr<HighPerformanceProfile> profile_;
};

TEST_F(HighPerformanceTaskTest, WaitsForTheModeThenAppliesAndReports) {
  Run(3);
  EXPECT_EQ(runs_, 1);
  EXPECT_FALSE(property_);
  EXPECT_EQ(done_, 1);
  EXPECT_EQ(sender_.Take(), std::vector<std::string>{"Event   transport_node_id: \"tn\" id: \"c1\""});
}

TEST_F(HighPerformanceTaskTest, AFailureOfTheScriptIsReported) {
  script_result_ = 102;
  Run(1);
  EXPECT_EQ(runs_, 1);
  const auto sent = sender_.Take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_NE(sent[0].find("failed with error code 102 for dvs "), std::string::npos) << sent[0];
}

TEST_F(HighPerformanceTaskTest, EndsWithNothingToDoAndWhenTheAgentStops) {
  Run(-1);
  EXPECT_EQ(runs_, 0);
  EXPECT_EQ(done_, 1);
  EXPECT_TRUE(sender_.Take().empty()) << "nothing has come of it";
  property_.reset();
  Run(1);
  EXPECT_EQ(done_, 2);
  EXPECT_TRUE(sender_.Take().empty()) << "nothing was pending";
  EXPECT_EQ(files_.DeleteConfigFiles(), 0);
  property_ = "maintenance_mode";
  Run(1);
  EXPECT_EQ(done_, 3);
  EXPECT_TRUE(sender_.Take().empty());
}

}  // namespace
}  // namespace zem::zema
