#include "framework/log/logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "framework/log/log.h"
#include "platform/core/thread.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

constexpr LogSource kLog{"tarvik", "framework"};

class LoggerTest : public ::testing::Test {
 protected:
  ~LoggerTest() override {
    Logger::SetConsoleCopy(false);
    Restart("", "", "zem-qub");
  }

  void Restart(const std::string& structured_data, const std::string& message_ids,
               const std::string& node_type) {
    LogFiles files;
    files.issue = directory_.Write("issue", "node-type: " + node_type + "\n");
    files.structured_data = directory_.Write("structured", structured_data);
    files.message_ids = directory_.Write("ids", message_ids);
    const uint32_t level = Logger::logLevel;
    Logger::StaticStart(files);
    Logger::logLevel = level;
    capture_.Clear();
  }

  test::TempDir directory_;
  test::LogCapture capture_;
};

// A parser of operators' logs depends on each byte in front of the text.
TEST_F(LoggerTest, LineHasTheFixedForm) {
  Restart("", "", "zem-edge");
  ZLOG_INFO("hello %d", 7);
  Logger(kLogDebug).entid("vif-1").tag("NDB103").tag("").tag(":").put("%s", "x");
  ZLOG_ERROR("OPS00303", "a");
  ZLOG_ERROR("20025", "b");
  ZLOG_TAGGED(kLogWarning, "k:v:w", "c");
  ZLOG_CTX_ERROR(2, "d");
  const std::string head = "ZEM [0-9]+ - \\[zem@7741 comp=\"zem-edge\" subcomp=\"tarvik\"";
  const std::string framework = head + " s2comp=\"framework\" tid=\"[0-9]+\"";
  EXPECT_THAT(
      capture_.Lines(),
      ElementsAre(MatchesRegex(framework + " level=\"INFO\"\\] hello 7"),
                  MatchesRegex(head + " entId=\"vif-1\" tid=\"[0-9]+\" level=\"DEBUG\" tag=\"NDB103\"\\] x"),
                  MatchesRegex(framework + " level=\"ERROR\" errorCode=\"OPS00303\"\\] a"),
                  MatchesRegex(framework + " level=\"ERROR\" errorCode=\"MPA20025\"\\] b"),
                  MatchesRegex(framework + " level=\"WARNING\" k=\"v:w\"\\] c"),
                  MatchesRegex(framework + " level=\"ERROR\" errorCode=\"CTX2\"\\] d"),
                  MatchesRegex(framework + " level=\"ERROR\" errorCode=\"MPACTX2\"\\] d")));
  EXPECT_THAT(capture_.Priorities(),
              ElementsAre(LOG_LOCAL6 | 6, LOG_LOCAL6 | 7, LOG_LOCAL6 | 3, LOG_LOCAL6 | 3, LOG_LOCAL6 | 4,
                          LOG_LOCAL6 | 3, LOG_LOCAL6 | 3));
}

// A tag that the table does not permit must not reach a strict reader, and must not cost the line.
TEST_F(LoggerTest, TagsAreCheckedAgainstTheTable) {
  Restart("# comment\nerrorCode:\ncolor: red,blue \na:b:c\ncolor:green,blue\n", "", "zem-qub");
  struct Case {
    const char* tag;
    const char* expected;
  };
  for (const Case& c :
       {Case{"errorCode:OPS1", "errorCode=\"OPS1\"] x"}, Case{"color:blue", "color=\"blue\"] x"},
        Case{"color:red", "level=\"INFO\" invalid=\"true\"] x"},
        Case{"a:b", "level=\"INFO\" invalid=\"true\"] x"},
        Case{"bare", "level=\"INFO\" invalid=\"true\"] x"}}) {
    capture_.Clear();
    Logger(kLogInfo).tag(c.tag).put("x");
    EXPECT_THAT(capture_.Lines(), ElementsAre(EndsWith(c.expected))) << c.tag;
  }
}

// A value with a line break would split one record into two.
TEST_F(LoggerTest, ControlCharactersInValuesAreReplaced) {
  Logger(kLogInfo).entid("a\nb").tag("k:v\tw").put("text\nstays");
  EXPECT_THAT(capture_.Lines(), ElementsAre(EndsWith("level=\"INFO\" k=\"v_w\"] text\nstays")));
  EXPECT_TRUE(capture_.Contains("entId=\"a_b\""));
}

TEST_F(LoggerTest, LevelFiltersLinesAndKeepsArgumentsUnevaluated) {
  int evaluated = 0;
  Logger::logLevel = kLogInfo;
  ZLOG_DEBUG("%d", ++evaluated);
  ZLOG_INFO("%d", ++evaluated);
  Logger(kLogDebug).put("dropped at emission");
  EXPECT_EQ(evaluated, 1);
  EXPECT_THAT(capture_.Texts(), ElementsAre("1"));
  Logger::logLevel = kLogOff;
  ZLOG_FATAL("%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
}

TEST_F(LoggerTest, ConsoleCopyIgnoresTheLevel) {
  Logger::logLevel = kLogInfo;
  Logger::SetConsoleCopy(true);
  ::testing::internal::CaptureStdout();
  Logger(kLogDebug).put("for the console");
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_THAT(out, MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{3}Z \\[zem@7741 .*\\] for the "
                                "console\n"));
  EXPECT_TRUE(capture_.Lines().empty());
}

// Text of any length must come out whole up to the limits, and beyond them lose only itself.
TEST_F(LoggerTest, LongTexts) {
  for (const size_t size : {size_t{2047}, size_t{2048}, size_t{60000}}) {
    capture_.Clear();
    const std::string text(size, 'a');
    ZLOG_INFO("%s", text.c_str());
    EXPECT_THAT(capture_.Texts(), ElementsAre(text));
  }
  capture_.Clear();
  const std::string long_text(100000, 'a');
  ZLOG_INFO("%s", long_text.c_str());
  ASSERT_EQ(capture_.Lines().size(), 1u);
  EXPECT_EQ(capture_.Lines()[0].size(), 64u * 1024);
  EXPECT_THAT(capture_.Lines()[0], EndsWith("aaa..."));
  capture_.Clear();
  const std::string dropped(2 * 1024 * 1024, 'a');
  ZLOG_INFO("%s", dropped.c_str());
  EXPECT_THAT(capture_.Texts(), ElementsAre(""));
}

TEST_F(LoggerTest, InvalidLevelIsReported) {
  Logger(static_cast<LibraryLogLevel>(7)).put("lost");
  Logger(static_cast<LibraryLogLevel>(0)).put("lost");
  EXPECT_THAT(capture_.Lines(), ElementsAre("Invalid log level 7", "Invalid log level 0"));
}

TEST_F(LoggerTest, EnvironmentDecidesAtStart) {
  struct Case {
    const char* level;
    const char* method;
    uint32_t expected;
    std::vector<std::string> lines;
  };
  for (const Case& c : {
           Case{"VERBOSE", nullptr, 5, {"Set log level to VERBOSE", "Use default syslog"}},
           Case{"PANIC", "DEVLOG", 1, {"Set log level to PANIC", "Use default syslog"}},
           Case{nullptr, "514", 4, {"Set log level to INFO", "Use default syslog"}},
           Case{"debug",
                "x1",
                4,
                {"Invalid log level debug, ignore", "Set log level to INFO",
                 "Invalid UDP port provided in ZEM_SYSLOG_METHOD environment variable: x1. Using default "
                 "syslog "
                 "UDP port",
                 "Use default syslog"}},
       }) {
    capture_.Clear();
    c.level != nullptr ? setenv("ZEM_LOG_LEVEL", c.level, 1) : unsetenv("ZEM_LOG_LEVEL");
    c.method != nullptr ? setenv("ZEM_SYSLOG_METHOD", c.method, 1) : unsetenv("ZEM_SYSLOG_METHOD");
    Logger::StaticStart(LogFiles{directory_.Path("none"), directory_.Path("none"), directory_.Path("none")});
    EXPECT_EQ(Logger::logLevel, c.expected);
    EXPECT_EQ(capture_.Lines(), c.lines);
  }
  unsetenv("ZEM_LOG_LEVEL");
  unsetenv("ZEM_SYSLOG_METHOD");
}

// The component is the last well-formed line of the identity file, its first word.
TEST_F(LoggerTest, ComponentOfTheIdentityFile) {
  Restart("", "", "zem-edge extra\n#node-type: no\nnode-type: a:b\nnode-type: zem-kvm ");
  ZLOG_INFO("x");
  EXPECT_TRUE(capture_.Contains("comp=\"zem-kvm\""));
}

TEST_F(LoggerTest, LevelWordsAndSetLogLevel) {
  SetLogLevel(6);
  EXPECT_THAT(capture_.Texts(), ElementsAre("SetLogLevel set tarvik logLevel to: trace"));
  for (int level = 0; level <= 6; ++level) EXPECT_EQ(ParseLevel(LevelName(level)), level);
  EXPECT_EQ(ParseLevel("loud"), std::nullopt);
}

TEST_F(LoggerTest, LibrariesLogThroughTheLogger) {
  InstallLibraryLogBridge();
  LibraryLevel(Library::kNet) = kLogWarning;
  ZEM_LIB_LOG(Library::kNet, kLogInfo, "no");
  ZEM_LIB_LOG(Library::kNet, kLogWarning, "yes %d", 1);
  LibraryLevel(Library::kNet) = kLogInfo;
  EXPECT_THAT(capture_.Texts(), ElementsAre("yes 1"));
  EXPECT_TRUE(capture_.Contains("subcomp=\"zem-net\" tid="));
}

}  // namespace
}  // namespace zem
