#include "framework/timeline/timeline_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "framework/timeline/timeline_json.h"
#include "platform/core/virtual_clock.h"
#include "platform/timeline/step.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using timeline::Kind;

class TimelineFileTest : public testing::Test {
 protected:
  ~TimelineFileTest() override { timeline::Clear(); }

  // One life of the daemon, in which these VIF operations fail.
  void Live(const std::vector<std::string>& vifs, size_t note_bytes = 0) {
    const TimelineFile file(path_);
    for (const std::string& vif : vifs) {
      const timeline::OperationPtr operation = timeline::Begin(Kind::kVif, "attach", {vif});
      const timeline::Scope scope(operation);
      for (size_t bytes = 0; bytes < note_bytes; bytes += 200) timeline::Note("step", std::string(200, 'x'));
      timeline::Finish(operation, "refused: \"\x1b[2J\xff\n</script>");
    }
    timeline::Finish(timeline::Begin(Kind::kVif, "attach", {"good"}), {});
  }
  std::vector<std::string> Remembered() {
    std::vector<std::string> vifs;
    const TimelineFile file(path_);
    for (const auto& operation : file.earlier()) vifs.push_back(operation.keys.at(0));
    return vifs;
  }
  void Append(const std::string& text) { std::ofstream(path_, std::ios::app) << text; }

  const test::TempDir dir_;
  const std::string path_ = dir_.Path("failed.jsonl");
};

TEST_F(TimelineFileTest, WhatFailedIsExplainedInTheNextLife) {
  Live({"vif-1", "vif-2"});
  Live({"vif-3"});
  EXPECT_THAT(Remembered(), ElementsAre("vif-3", "vif-2", "vif-1"));
  const TimelineFile file(path_);
  const timeline::OperationReading& last = file.earlier().front();
  EXPECT_TRUE(last.earlier_life);
  EXPECT_EQ(last.state, timeline::State::kFailed);
  EXPECT_EQ(last.error.substr(0, 10), "refused: \"");
}

// A kill in the middle of a line, and a file of somebody else's, cost these lines and no other.
TEST_F(TimelineFileTest, DamageCostsTheDamagedLinesAlone) {
  Live({"vif-1"});
  Append("{\"kind\":\"VIF operation\",\"steps\":[{\"na");
  Live({"vif-2"});
  Append(
      "[1,2]\n{\"steps\":3}\n{\"steps\":[],\"kind\":7,\"state\":\"failed\"}\n{\"steps\":[null,5],\"kind\":"
      "\"x\","
      "\"state\":\"boiling\"}\n\n" +
      std::string(100'000, '[') + "\n");
  Live({"vif-3"});
  EXPECT_THAT(Remembered(), ElementsAre("vif-3", "vif-2", "vif-1"));
  std::filesystem::resize_file(path_, size_t{64} << 20);
  EXPECT_THAT(Remembered(), IsEmpty());
}

TEST_F(TimelineFileTest, TheFileStaysSmallAndKeepsTheNewest) {
  std::vector<std::string> vifs;
  for (int i = 0; i < 60; ++i) vifs.push_back("vif-" + std::to_string(i));
  Live(vifs, 40'000);
  EXPECT_LE(std::filesystem::file_size(path_), size_t{1} << 20);
  const std::vector<std::string> remembered = Remembered();
  ASSERT_GT(remembered.size(), 5u);
  EXPECT_EQ(remembered.front(), "vif-59");
}

// A configuration hangs and the daemon is killed for it: the next life tells where it hung.  One that came to
// its end after all is not told of.
TEST_F(TimelineFileTest, WhatHangsIsWrittenDownBeforeTheKill) {
  VirtualClock clock;
  {
    const TimelineFile file(path_);
    const timeline::OperationPtr slow = timeline::Begin(Kind::kVif, "attach", {"slow"});
    const timeline::OperationPtr hung = timeline::Begin(Kind::kHostConfig, "revision 1", {"hung"});
    const timeline::Scope scope(hung);
    const timeline::Step step("waits for the script");
    clock.RunFor(std::chrono::seconds(16));
    timeline::Finish(slow, {});
    clock.RunFor(std::chrono::seconds(6));
    std::filesystem::copy_file(path_, path_ + ".killed");
  }
  const TimelineFile next(path_ + ".killed");
  ASSERT_THAT(next.earlier(), testing::SizeIs(1));
  EXPECT_EQ(next.earlier()[0].state, timeline::State::kUnderWay);
  EXPECT_EQ(next.earlier()[0].steps.at(0).name, "waits for the script");
  EXPECT_EQ(next.earlier()[0].steps.at(0).duration_us, -1);
}

// An orderly stop in the first moments of an operation: the next life tells that it had begun.
TEST_F(TimelineFileTest, WhatIsUnderWayAtAStopIsWrittenDown) {
  {
    const TimelineFile file(path_);
    timeline::Finish(timeline::Begin(Kind::kVif, "attach", {"good"}), {});
    const timeline::OperationPtr begun = timeline::Begin(Kind::kVif, "attach", {"begun"});
  }
  EXPECT_THAT(Remembered(), ElementsAre("begun"));
}

// A pipe in the file's place would hold up the start for ever.
TEST_F(TimelineFileTest, APipeInItsPlaceIsLeftAlone) {
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  Live({"vif-1"});
  EXPECT_THAT(Remembered(), IsEmpty());
  EXPECT_TRUE(std::filesystem::is_fifo(path_));
}

// A folder that is missing must not cost the daemon anything but the file.
TEST_F(TimelineFileTest, WithoutItsFolderNothingElseFails) {
  const TimelineFile file(dir_.Path("missing/failed.jsonl"));
  timeline::Finish(timeline::Begin(Kind::kVif, "attach", {"vif-1"}), "refused");
  EXPECT_THAT(timeline::Find("vif-1", 1), testing::SizeIs(1));
}

}  // namespace
}  // namespace zem::Tarvik
