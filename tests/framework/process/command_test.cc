#include "framework/process/command.h"
#include "framework/process/descriptor_io.h"
#include "framework/process/error_text.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "framework/process/shutdown_pipe.h"
#include "platform/core/thread.h"
#include "platform/core/unix_socket.h"
#include "platform/core/virtual_clock.h"
#include "tests/support/log_capture.h"
#include "tests/support/process_end.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class UtilTest : public ::testing::Test {
 protected:
  UtilTest() {
    ::signal(SIGPIPE, SIG_IGN);
    EXPECT_TRUE(OpenShutdownPipe());
  }
  ~UtilTest() override { CloseShutdownPipe(); }

  UniqueFd Listen(const std::string& path) {
    UniqueFd fd = OpenUnixStream();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, kMaxUnixPath);
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(fd.get(), 4), 0);
    return fd;
  }

  test::TempDir directory_;
  test::LogCapture capture_;
};

TEST_F(UtilTest, PathOf107BytesConnectsAndOneMoreIsRefused) {
  std::string path = directory_.Path("");
  path.append(kMaxUnixPath - path.size(), 's');
  ASSERT_EQ(path.size(), 107u);
  const UniqueFd listener = Listen(path);
  const UniqueFd connected(ConnectToUnixSocket(path, false));
  EXPECT_TRUE(connected);
  EXPECT_EQ(ConnectToUnixSocket(path + "s", false), -1);
  EXPECT_TRUE(capture_.Contains("errorCode=\"ERR_SOCK_PATH_TOO_LONG\"] [ConnectToUnixSocket] path [" + path +
                                "s] is longer than 107d\n"));
}

// A minute of retries, a second apart, then the truth; without retry at once.
TEST_F(UtilTest, ConnectRetriesForAMinute) {
  VirtualClock clock;
  const TimePoint start = clock.Now();
  EXPECT_EQ(ConnectToUnixSocket(directory_.Path("none"), false), -1);
  EXPECT_EQ(clock.Now(), start);
  EXPECT_EQ(ConnectToUnixSocket(directory_.Path("none"), true), -1);
  EXPECT_EQ(clock.Now() - start, std::chrono::seconds(60));
  EXPECT_TRUE(capture_.Contains("Connecting failed after [60] retry: [No such file or directory]\n"));

  UniqueFd listener;
  NativeThread late([&] {
    SleepFor(std::chrono::milliseconds(2500));
    listener = Listen(directory_.Path("late"));
  });
  const UniqueFd connected(ConnectToUnixSocket(directory_.Path("late"), true));
  EXPECT_TRUE(connected);
  EXPECT_EQ(clock.Now() - start, std::chrono::seconds(63));
}

TEST_F(UtilTest, ShutdownEndsWaits) {
  VirtualClock clock;
  const TimePoint start = clock.Now();
  NativeThread stopper([] {
    SleepFor(std::chrono::seconds(3));
    CloseShutdownPipe();
  });
  EXPECT_EQ(ConnectToUnixSocket(directory_.Path("none"), true), -1);
  EXPECT_EQ(clock.Now() - start, std::chrono::seconds(3));

  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const UniqueFd read_end(ends[0]);
  const UniqueFd write_end(ends[1]);
  bool shutdown = false;
  EXPECT_EQ(Util::IsReadyToBeRead(read_end.get(), &shutdown, 60), 0);
  EXPECT_TRUE(shutdown);
  ASSERT_EQ(::write(write_end.get(), "x", 1), 1);
  EXPECT_EQ(Util::IsReadyToBeRead(read_end.get(), &shutdown, 60), 1);
}

TEST_F(UtilTest, IsReadyToBeReadTellsItsCases) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const UniqueFd read_end(ends[0]);
  const UniqueFd write_end(ends[1]);
  bool shutdown = false;
  EXPECT_EQ(Util::IsReadyToBeRead(read_end.get(), &shutdown, 0), 0);
  ASSERT_EQ(::write(write_end.get(), "x", 1), 1);
  EXPECT_EQ(Util::IsReadyToBeRead(read_end.get(), &shutdown, 60), 1);
  EXPECT_FALSE(shutdown);
  // A number above what a descriptor set can hold.
  const UniqueFd high(::fcntl(read_end.get(), F_DUPFD, 1500));
  if (!high) GTEST_SKIP() << "the limit of descriptors is too low";
  EXPECT_EQ(Util::IsReadyToBeRead(high.get(), &shutdown, 60), 1);
}

TEST_F(UtilTest, ReadAndWriteWhole) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const UniqueFd read_end(ends[0]);
  UniqueFd write_end(ends[1]);
  const std::string sent(300000, 'x');
  NativeThread writer([&] {
    EXPECT_EQ(Util::WriteData(write_end.get(), sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
    write_end.Reset();
  });
  std::string received(sent.size() + 10, '\0');
  int got = 0;
  EXPECT_EQ(ReadData(read_end.get(), received.data(), received.size(), &got), 0);
  EXPECT_EQ(got, 300000);
  EXPECT_EQ(ReadData(-1, received.data(), 1, &got), -1);
  EXPECT_EQ(Util::WriteData(-1, "x", 1), -1);
  EXPECT_TRUE(
      capture_.Contains("errorCode=\"OPS00404\"] [WriteData] writing to fd [-1] failed with error "
                        "[ Bad file descriptor : 9]\n"));
}

TEST_F(UtilTest, ShellCommands) {
  std::string error;
  std::string output;
  EXPECT_EQ(Util::ExecuteCmd("cat > " + directory_.Path("copy") + "; exit 4", "input", &error), 4);
  EXPECT_EQ(directory_.Read("copy"), "input");
  EXPECT_EQ(Util::ReadCmdOutput("seq 1 1000", &output, &error), 0);
  EXPECT_EQ(output.size(), 3893u);
  EXPECT_EQ(error, "");
  EXPECT_EQ(Util::ReadCmdOutput("kill -9 $$", &output, &error), -1);
  EXPECT_EQ(error, "terminated by signal 9");
  EXPECT_TRUE(
      capture_.Contains("errorCode=\"ERR_QUB_PCLOSE_FAIL\"] ClosePipeQub failed kill -9 $$: terminated"));
  const std::string much(1 << 20, 'x');
  EXPECT_EQ(Util::ExecuteCmd("exec 0<&-; exit 0", much, &error), -1);
  EXPECT_THAT(error, StartsWith("write failed: "));
}

// A tool that prints without end must not take the daemon's memory, nor hold up its end.
TEST_F(UtilTest, EndlessOutputIsCut) {
  std::string error;
  std::string output;
  EXPECT_EQ(Util::ReadCmdOutput("exec yes", &output, &error), -1);
  EXPECT_EQ(error, "output is longer than 16 MiB");
  EXPECT_LE(output.size(), size_t{16} << 20);
  NativeThread stopper([] { CloseShutdownPipe(); });
  EXPECT_EQ(Util::ReadCmdOutput("exec sleep 600", &output, &error), -1);
  EXPECT_EQ(error, "stopped by the shutdown");
}

// A tool that hangs must not hold its caller, nor leave anything behind.
TEST_F(UtilTest, ACommandHasBounds) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const UniqueFd stop(ends[0]);
  const UniqueFd stopper(ends[1]);
  const std::string tell = "echo $! > " + directory_.Path("pid") + "; ";
  struct Case {
    std::string command;
    Util::CommandBounds bounds;
    int result;
    const char* error;
  };
  const Case cases[] = {
      {"exec sleep 600", {std::chrono::milliseconds(20)}, -1, "took too long"},
      {"exec >&-; sleep 600", {std::chrono::milliseconds(20)}, -1, "took too long"},
      {"while :; do echo x; sleep 0.01; done", {std::chrono::milliseconds(50)}, -1, "took too long"},
      {"sleep 600 & " + tell + "sleep 600", {std::chrono::milliseconds(200)}, -1, "took too long"},
      {"exit 3", {std::chrono::minutes(1), stop.get()}, 3, ""},
      {"sleep 600 & " + tell + "read x", {std::chrono::minutes(10), stop.get()}, -1, "stopped"},
  };
  for (const Case& c : cases) {
    if (std::string(c.error) == "stopped") {
      ASSERT_EQ(::write(stopper.get(), "x", 1), 1);
    }
    std::string output;
    std::string error;
    EXPECT_EQ(Util::ReadCmdOutput(c.command, &output, &error, c.bounds), c.result) << c.command;
    EXPECT_EQ(error, c.error) << c.command;
    const std::string child = directory_.Read("pid");
    if (child.empty()) continue;
    EXPECT_TRUE(test::HasEnded(std::stoi(child))) << c.command;
    directory_.Write("pid", "");
  }
}

TEST_F(UtilTest, ForkedCommand) {
  EXPECT_EQ(
      ExecuteCmd({"/bin/sh", "-c", "read x; test $x-$PYTHONIOENCODING-$HOME = in-utf-8-"}, "in\n", nullptr),
      0);
  EXPECT_EQ(ExecuteCmd({"/bin/sh", "-c", "echo why >&2; exit 7"}, "", nullptr), 7);
  EXPECT_TRUE(capture_.Contains("exited abnormally, ret=7"));
  EXPECT_TRUE(capture_.Contains("printed last: why"));
  EXPECT_EQ(ExecuteCmd({"/bin/sh", "-c", "kill -9 $$"}, "", nullptr), -1);
  EXPECT_EQ(ExecuteCmd({"/nonexistent"}, "", nullptr), -1);
  EXPECT_TRUE(capture_.Contains("errorCode=\"OPS60010\"] KnluserCompat_ForkExec fails: errno=2"));
  EXPECT_EQ(ExecuteCmd({"/bin/sh", "-c", "exec 0<&-; exit 0"}, std::string(1 << 20, 'x'), nullptr), -1);
  EXPECT_TRUE(capture_.Contains("Write to stdin of parent process failed: Broken pipe"));
}

TEST(UtilDeathTest, PanicAborts) { EXPECT_DEATH(Panic("lost %d", 3), "Panic: lost 3"); }

}  // namespace
}  // namespace zem::Tarvik
