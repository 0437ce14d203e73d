#include "sim/replay/recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/temp_dir.h"

namespace zem::sim {
namespace {

class RecordingTest : public testing::Test {
 protected:
  RecordingTest() {
    recording_.daemon_options = "<config>\n</config>";
    recording_.clock_factor = 5;
    recording_.events.push_back({7, "log/wait \"up\x01\"", "{\"ok\":true}", false, true, {}});
    recording_.events.push_back(
        {1'000, "vm power-on \xc3\xa9", "{\"ok\":false}", true, false, {{"script apply", 3}}});
    recording_.borders.Add("file a", "{\"hex\":\"00ff\"}");
    Recording::Draft(path_).Finish(recording_);
    text_ = dir_.Read("day");
  }
  // Why a file with this text is refused; empty when it is not.
  std::string Refusal(const std::string& text) {
    dir_.Write("other", text);
    try {
      Recording::Read(dir_.Path("other"));
      return "";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }

  const test::TempDir dir_;
  const std::string path_ = dir_.Path("day");
  Recording recording_;
  std::string text_;
};

TEST_F(RecordingTest, IsReadAsItWasWritten) {
  const Recording read = Recording::Read(path_);
  EXPECT_EQ(read.daemon_options, recording_.daemon_options);
  EXPECT_EQ(read.clock_factor, 5);
  ASSERT_EQ(read.events.size(), 2u);
  EXPECT_EQ(read.events[0].command, recording_.events[0].command);
  EXPECT_EQ(read.events[1].command, recording_.events[1].command);
  EXPECT_EQ(read.events[1].at_ms, 1'000);
  EXPECT_TRUE(read.events[1].awaited);
  EXPECT_TRUE(read.events[0].daemon_ran);
  EXPECT_FALSE(read.events[1].daemon_ran);
  EXPECT_EQ(read.events[1].seen, recording_.events[1].seen);
  EXPECT_EQ(read.borders.groups(), recording_.borders.groups());
}

// A day that is cut short would be replayed as a shorter day, and found to be without a difference.
TEST_F(RecordingTest, NoCutAndNoDamageGoesUnseen) {
  ASSERT_EQ(Refusal(text_), "");
  for (size_t size = 0; size + 1 < text_.size(); ++size)
    ASSERT_NE(Refusal(text_.substr(0, size)), "") << size;
  const size_t second = text_.find('\n', text_.find('\n') + 1) + 1;
  const std::string without = text_.substr(0, text_.find('\n') + 1) + text_.substr(second);
  EXPECT_THAT(Refusal(without), testing::HasSubstr("another number of lines"));
  EXPECT_THAT(Refusal(text_ + "{}\n"), testing::HasSubstr("behind the end"));
}

TEST_F(RecordingTest, WhatNoRecorderWritesIsRefused) {
  struct Case {
    const char* from;
    const char* to;
    const char* why;
  };
  for (const Case& c : {Case{"\"version\":3", "\"version\":1", "no recording of version 3"},
                        Case{"\"clock_factor\":5", "\"clock_factor\":0", "no clock factor"},
                        Case{"\"clock_factor\":5", "\"clock_factor\":1e300", "no clock factor"},
                        Case{"\"at_ms\":7", "\"at_ms\":-7", "is no time"},
                        Case{"\"at_ms\":7", "\"at_ms\":1e300", "is no time"},
                        Case{"\"script apply\":3", "\"script apply\":\"x\"", "has no counts"},
                        Case{"{\"border\"", "[{\"border\"", "neither a command nor a border"}}) {
    std::string text = text_;
    ASSERT_NE(text.find(c.from), std::string::npos) << c.from;
    text.replace(text.find(c.from), std::string(c.from).size(), c.to);
    EXPECT_THAT(Refusal(text), testing::HasSubstr(c.why)) << c.to;
  }
  EXPECT_THAT(Refusal(""), testing::HasSubstr("cannot be read"));
  EXPECT_THAT(Refusal(std::string(100, '\0') + "\n"), testing::HasSubstr("no recording"));
}

}  // namespace
}  // namespace zem::sim
