#include "framework/timeline/mark_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>

#include "framework/timeline/timeline_file.h"
#include "platform/core/virtual_clock.h"
#include "platform/timeline/marks.h"
#include "platform/timeline/step.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using timeline::Kind;
namespace fs = std::filesystem;

class MarkFileTest : public testing::Test {
 protected:
  ~MarkFileTest() override { timeline::Clear(); }

  std::unique_ptr<TimelineFile> Start() { return std::make_unique<TimelineFile>(path_, marks_); }
  // What a kill would leave of the life that is going on, for the next one.
  void KeepAsKilled() {
    if (fs::exists(path_)) fs::copy_file(path_, path_ + ".killed");
    fs::copy_file(marks_, marks_ + ".killed");
  }
  void TakeKept() {
    if (fs::exists(path_ + ".killed")) fs::rename(path_ + ".killed", path_);
    fs::rename(marks_ + ".killed", marks_);
  }
  static std::vector<std::string> Told(const TimelineFile& file) {
    std::vector<std::string> told;
    for (const auto& each : file.earlier()) told.push_back(each.keys.at(0));
    return told;
  }

  test::LogCapture log_;
  const test::TempDir dir_;
  const std::string path_ = dir_.Path("failed.jsonl");
  const std::string marks_ = dir_.Path("marks");
};

// The daemon is killed in the first moments of an operation: the next lives tell of it, once, and of nothing
// that had ended.
TEST_F(MarkFileTest, WhatAKillInterruptsIsToldInTheNextLives) {
  auto life = Start();
  const auto attach = timeline::Begin(Kind::kVif, "attach", {"vif-1", "web"});
  timeline::Finish(timeline::Begin(Kind::kVif, "attach", {"ended"}), {});
  const auto config = timeline::Begin(Kind::kHostConfig, "revision 1", {"config"});
  KeepAsKilled();
  timeline::Finish(attach, {});
  timeline::Finish(config, {});
  life.reset();
  EXPECT_FALSE(fs::exists(marks_)) << "an orderly end interrupts nothing";
  TakeKept();
  fs::copy_file(marks_, marks_ + ".again");
  life = Start();
  EXPECT_THAT(Told(*life), ElementsAre("config", "vif-1"));
  EXPECT_EQ(life->earlier()[1].state, timeline::State::kFailed);
  EXPECT_THAT(life->earlier()[1].error, HasSubstr("the daemon ended while this was under way"));
  EXPECT_THAT(life->earlier()[1].keys, ElementsAre("vif-1", "web"));
  life.reset();
  fs::rename(marks_ + ".again", marks_);
  EXPECT_THAT(Told(*Start()), ElementsAre("config", "vif-1"))
      << "a start that was killed before it began anew";
  EXPECT_THAT(Told(*Start()), ElementsAre("config", "vif-1"));
}

// What was written down while it ran keeps its steps, and is no longer under way.
TEST_F(MarkFileTest, AnInterruptedOperationKeepsItsSteps) {
  VirtualClock clock;
  auto life = Start();
  const auto config = timeline::Begin(Kind::kHostConfig, "revision 1", {"config"});
  {
    const timeline::Scope scope(config);
    const timeline::Step step("waits for the script");
    clock.RunFor(std::chrono::seconds(4));
    KeepAsKilled();
  }
  timeline::Finish(config, {});
  life.reset();
  TakeKept();
  life = Start();
  ASSERT_THAT(life->earlier(), SizeIs(1));
  EXPECT_EQ(life->earlier()[0].state, timeline::State::kFailed);
  EXPECT_EQ(life->earlier()[0].steps.at(0).name, "waits for the script");
  EXPECT_GE(life->earlier()[0].duration_us, 3'000'000) << "it was alive then";
}

// Whatever stands in the file's place, the daemon starts; what can be a file of its own is replaced.
TEST_F(MarkFileTest, WhateverStandsInItsPlace) {
  struct Case {
    const char* name;
    std::function<void()> make;
    bool replaced;
  };
  const Case cases[] = {
      {"pipe", [this] { ::mkfifo(marks_.c_str(), 0600); }, false},
      {"folder", [this] { fs::create_directory(marks_); }, false},
      {"link", [this] { fs::create_symlink(dir_.Path("elsewhere"), marks_); }, false},
      {"nothing in it", [this] { dir_.Write("marks", ""); }, true},
      {"short", [this] { dir_.Write("marks", std::string(timeline::MarkTable::kBytes - 1, '\0')); }, true},
      {"long", [this] { dir_.Write("marks", std::string(size_t{3} << 20, 'x')); }, true},
      {"garbage", [this] { dir_.Write("marks", std::string(timeline::MarkTable::kBytes, '\xff')); }, true},
      {"left by a start that was killed", [this] { fs::create_directory(marks_ + ".new"); }, false},
  };
  dir_.Write("elsewhere", "kept");
  for (const Case& c : cases) {
    c.make();
    {
      const auto life = Start();
      EXPECT_THAT(life->earlier(), IsEmpty()) << c.name;
      timeline::Finish(timeline::Begin(Kind::kVif, "attach", {"vif-1"}), {});
      const bool marks = fs::is_regular_file(fs::symlink_status(marks_)) &&
                         fs::file_size(marks_) == timeline::MarkTable::kBytes;
      EXPECT_EQ(marks, c.replaced) << c.name;
      EXPECT_EQ(log_.Count("operations under way are not marked"), c.replaced ? 0U : 1U) << c.name;
      log_.Clear();
    }
    fs::remove(marks_);
  }
  EXPECT_EQ(dir_.Read("elsewhere"), "kept");
}

TEST_F(MarkFileTest, ItIsClosedToOthersAndOfOneDaemonAlone) {
  const auto life = Start();
  struct stat status {};
  ASSERT_EQ(::stat(marks_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  const auto attach = timeline::Begin(Kind::kVif, "attach", {"vif-1"});
  {
    const MarkFile second(marks_);
    EXPECT_THAT(second.interrupted(), IsEmpty()) << "that operation is not over";
    EXPECT_TRUE(log_.Contains("is in use by another process"));
  }
  EXPECT_TRUE(fs::exists(marks_));
  timeline::Finish(attach, {});
}

// Neither a full disk nor a missing folder may cost the daemon more than the marks.
TEST_F(MarkFileTest, WithoutRoomOrFolderOperationsGoUnmarked) {
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit little{timeline::MarkTable::kBytes / 2, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &little), 0);
  Start();
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_TRUE(
      log_.Contains("operations under way are not marked for the next start: " + marks_ + ": File too"));
  EXPECT_FALSE(fs::exists(marks_) || fs::exists(marks_ + ".new"));
  const TimelineFile life(path_, dir_.Path("missing/marks"));
  timeline::Finish(timeline::Begin(Kind::kVif, "attach", {"vif-1"}), "refused");
  EXPECT_THAT(timeline::Find("vif-1", 1), SizeIs(1));
}

}  // namespace
}  // namespace zem::Tarvik
