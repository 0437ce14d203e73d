#include "framework/log/syslog_sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "tests/support/temp_dir.h"

namespace zem {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

constexpr int kPriority = 22 << 3 | 6;

// A syslog daemon that reads when it is told to.
class Daemon {
 public:
  explicit Daemon(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }

  // Reads until `last` has come; what came, without what stands before the texts.
  std::vector<std::string> ReadUntil(const std::string& last) {
    std::vector<std::string> texts;
    while (texts.empty() || texts.back() != last) {
      pollfd wait{fd_.get(), POLLIN, 0};
      char buffer[8192];
      if (::poll(&wait, 1, 30000) <= 0) break;
      const ssize_t size = ::recv(fd_.get(), buffer, sizeof(buffer), 0);
      std::string line(buffer, static_cast<size_t>(size));
      heads.push_back(line.substr(0, line.find("]: ") + 3));
      texts.push_back(line.substr(line.find("]: ") + 3));
    }
    return texts;
  }

  std::vector<std::string> heads;

 private:
  UniqueFd fd_;
};

class SyslogSinkTest : public ::testing::Test {
 protected:
  SyslogSink::Options Options() {
    SyslogSink::Options options;
    options.path = directory_.Path("log");
    options.identity = "zem-tarvik";
    options.loss_line = [](uint64_t lost) { return "lost " + std::to_string(lost); };
    return options;
  }

  static std::vector<std::string> Numbers(int from, int to) {
    std::vector<std::string> texts;
    for (int i = from; i < to; ++i) texts.push_back(std::to_string(i));
    return texts;
  }

  test::TempDir directory_;
};

// Neither a daemon that does not read nor one that comes late holds anybody up or costs a line.
TEST_F(SyslogSinkTest, ADaemonThatDoesNotReadHoldsUpNobody) {
  SyslogSink sink(Options());
  sink.Start();
  for (int i = 0; i < 100; ++i) sink.Write(kPriority, std::to_string(i));  // nobody is there
  Daemon daemon(directory_.Path("log"));
  for (int i = 100; i < 5000; ++i) sink.Write(kPriority, std::to_string(i));
  EXPECT_EQ(daemon.ReadUntil("4999"), Numbers(0, 5000));
  EXPECT_THAT(daemon.heads[0], ::testing::StartsWith("<182>"));
  EXPECT_THAT(daemon.heads[0], EndsWith(" zem-tarvik[" + std::to_string(::getpid()) + "]: "));
  EXPECT_EQ(sink.lost(), 0u);
}

// What does not fit into the buffer is counted, and the first line that gets through says how many.
TEST_F(SyslogSinkTest, LostLinesAreCounted) {
  Daemon daemon(directory_.Path("log"));
  SyslogSink sink(Options());
  sink.Start();
  const std::string filler(1000, 'x');
  const size_t lines = 2 * SyslogSink::kMost / filler.size();
  for (size_t i = 0; i < lines; ++i) sink.Write(kPriority, filler);
  const uint64_t lost = sink.lost();
  EXPECT_GT(lost, 0u);
  sink.Write(kPriority, "last");
  const std::vector<std::string> texts = daemon.ReadUntil("last");
  const auto told =
      std::find_if(texts.begin(), texts.end(), [](const std::string& text) { return text[0] == 'l'; });
  ASSERT_NE(told, texts.end() - 1);
  const uint64_t count = std::stoull(told->substr(5));
  EXPECT_EQ(texts.size() - 2 + count, lines);
}

TEST_F(SyslogSinkTest, ANewDaemonTakesTheOldOnesPlace) {
  SyslogSink sink(Options());
  sink.Start();
  {
    Daemon first(directory_.Path("log"));
    sink.Write(kPriority, "a");
    EXPECT_EQ(first.ReadUntil("a").size(), 1u);
  }
  sink.Write(kPriority, "b");
  ::unlink(directory_.Path("log").c_str());
  Daemon second(directory_.Path("log"));
  sink.Write(kPriority, "c");
  EXPECT_EQ(second.ReadUntil("c"), (std::vector<std::string>{"b", "c"}));
}

// The process's end takes what waits along, when it is orderly and when a signal asks for it.
TEST_F(SyslogSinkTest, NothingIsLostAtTheEnd) {
  Daemon daemon(directory_.Path("log"));
  for (const bool by_exit : {false, true}) {
    const pid_t child = ::fork();
    if (child == 0) {
      SyslogSink sink(Options());
      sink.Start();
      for (int i = 0; i < 500; ++i) sink.Write(kPriority, std::to_string(i));
      if (by_exit) {
        sink.Exit(0);
        for (;;) ::pause();
      }
      sink.Stop();
      ::_Exit(0);
    }
    EXPECT_EQ(daemon.ReadUntil("499"), Numbers(0, 500)) << by_exit;
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
}

}  // namespace
}  // namespace zem
