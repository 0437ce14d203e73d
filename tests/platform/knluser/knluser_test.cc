#include "platform/knluser/knluser.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/core/unique_fd.h"

namespace zem {
namespace {

std::string ReadAll(int fd) {
  std::string all;
  char piece[256];
  for (ssize_t got; (got = ::read(fd, piece, sizeof(piece))) > 0;)
    all.append(piece, static_cast<size_t>(got));
  return all;
}

int ExitCode(pid_t pid) {
  int status = 0;
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST(KnluserTest, POpenReadsAndWrites) {
  KnluserCompat_Pipe handle{-1, -1};
  ASSERT_EQ(KnluserCompat_POpen("printf 'a b'; exit 3", "r", &handle), 0);
  EXPECT_EQ(ReadAll(handle.fd), "a b");
  ::close(handle.fd);
  EXPECT_EQ(ExitCode(handle.pid), 3);

  ASSERT_EQ(KnluserCompat_POpen("read x && test \"$x\" = hello", "w", &handle), 0);
  EXPECT_EQ(::write(handle.fd, "hello\n", 6), 6);
  ::close(handle.fd);
  EXPECT_EQ(ExitCode(handle.pid), 0);
}

TEST(KnluserTest, BadArgumentsAndMissingPrograms) {
  KnluserCompat_Pipe handle{-1, -1};
  EXPECT_EQ(KnluserCompat_POpen("true", "rw", &handle), EINVAL);
  EXPECT_EQ(KnluserCompat_POpen(nullptr, "r", &handle), EINVAL);
  const char* const argv[] = {"/nonexistent/program", nullptr};
  const char* const none[] = {nullptr};
  const int descriptors[3] = {-1, -1, -1};
  pid_t pid = -1;
  EXPECT_EQ(KnluserCompat_ForkExec(argv, none, descriptors, 0, &pid), ENOENT);
  EXPECT_EQ(KnluserCompat_ForkExec(argv, none, descriptors, KNLUSER_ENDS_WITH_THREAD, &pid), ENOENT);
  EXPECT_EQ(::waitpid(-1, nullptr, 0), -1) << "a child that has become no program is not left behind";
  EXPECT_EQ(KnluserCompat_ForkExec(none, none, descriptors, 0, &pid), EINVAL);
}

// A descriptor that leaks into a child keeps a peer's connection open for as long as the child lives; a
// blocked or ignored signal makes it unkillable.
TEST(KnluserTest, ChildInheritsNeitherDescriptorsNorSignals) {
  const UniqueFd leaked(::open("/dev/null", O_RDONLY));
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto pipe_action = ::signal(SIGPIPE, SIG_IGN);

  KnluserCompat_Pipe handle{-1, -1};
  ASSERT_EQ(KnluserCompat_POpen("ls /proc/self/fd | tr '\\n' ' '; grep -E 'SigBlk|SigIgn' /proc/self/status",
                                "r", &handle),
            0);
  const std::string text = ReadAll(handle.fd);
  ::close(handle.fd);
  EXPECT_EQ(ExitCode(handle.pid), 0);
  ::signal(SIGPIPE, pipe_action);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  // 3 is the directory that ls itself reads; signals above 31 are the C library's own.
  const std::string expected = "0 1 2 3 SigBlk:\t0000000000000000\nSigIgn:\t";
  ASSERT_EQ(text.substr(0, expected.size()), expected);
  EXPECT_EQ(std::stoull(text.substr(expected.size()), nullptr, 16) & 0x7fffffff, 0u);
}

// The pipe's ends may be descriptors 0 to 2 when the daemon's own are closed.
TEST(KnluserTest, StandardDescriptorsMayBeSwapped) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd read_end(ends[0]);
  UniqueFd write_end(ends[1]);
  const UniqueFd saved(::dup(STDIN_FILENO));
  ASSERT_EQ(::dup2(write_end.get(), STDIN_FILENO), STDIN_FILENO);
  const char* const argv[] = {"sh", "-c", "echo out; echo err >&2", nullptr};
  const char* const environment[] = {"A=1", nullptr};
  const int descriptors[3] = {-1, STDIN_FILENO, STDIN_FILENO};
  pid_t pid = -1;
  const int result = KnluserCompat_ForkExec(argv, environment, descriptors, KNLUSER_NEW_GROUP, &pid);
  ::dup2(saved.get(), STDIN_FILENO);
  ASSERT_EQ(result, 0);
  write_end.Reset();
  EXPECT_EQ(ReadAll(read_end.get()), "out\nerr\n");
  EXPECT_EQ(ExitCode(pid), 0);
}

// A tool of the host that outlives a killed daemon holds what it works on for ever.
TEST(KnluserTest, TiedChildEndsWithItsParent) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd out(ends[0]);
  UniqueFd in(ends[1]);
  const char* const environment[] = {"PATH=/usr/bin:/bin", nullptr};
  const pid_t parent = ::fork();
  if (parent == 0) {
    // The shell's own descriptors and signals are printed, then it stays for ever, deaf to what asks it to
    // end.
    const char* const argv[] = {
        "sh", "-c",
        "trap '' TERM INT HUP; ls /proc/self/fd | tr '\\n' ' '; grep SigBlk /proc/self/status; "
        "while :; do sleep 0.1; done",
        nullptr};
    const int descriptors[3] = {-1, in.get(), -1};
    pid_t pid = -1;
    const int result = KnluserCompat_ForkExec(argv, environment, descriptors,
                                              KNLUSER_ENDS_WITH_THREAD | KNLUSER_NEW_GROUP, &pid);
    in.Reset();
    if (result == 0) ::pause();
    ::_exit(result);
  }
  in.Reset();
  std::string text;
  char piece[256];
  while (text.find("SigBlk") == std::string::npos || text.back() != '\n') {
    const ssize_t got = ::read(out.get(), piece, sizeof(piece));
    ASSERT_GT(got, 0);
    text.append(piece, static_cast<size_t>(got));
  }
  EXPECT_EQ(text.substr(0, 8), "0 1 2 3 ") << "3 is that of the list itself";
  EXPECT_NE(text.find("SigBlk:\t0000000000000000"), std::string::npos) << text;
  ::kill(parent, SIGKILL);
  EXPECT_EQ(ExitCode(parent), -SIGKILL);
  // The end of the stream is the end of the last process that holds it.
  EXPECT_EQ(ReadAll(out.get()), "");
}

}  // namespace
}  // namespace zem
