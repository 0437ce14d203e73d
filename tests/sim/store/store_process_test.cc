// The store as a process, with its control socket, as a person uses it.

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/core/unique_fd.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace zem::sim {
namespace {

TEST(StoreProcessTest, AnswersOnItsSocketAndEndsOnSigterm) {
  const zem::test::TempDir dir;
  const std::string control = dir.Path("control");
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  UniqueFd reader(out[0]);
  UniqueFd writer(out[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, writer.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, reader.get());
  std::string arguments[] = {ZEM_SIM_STORE, "--listen", "tcp://127.0.0.1:0", "--control", control};
  char* argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(),
                  arguments[3].data(), arguments[4].data(), nullptr};
  pid_t pid = 0;
  ASSERT_EQ(posix_spawn(&pid, ZEM_SIM_STORE, &actions, nullptr, argv, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  writer.Reset();

  const auto read_line = [](int fd) {
    std::string line;
    char c;
    while (read(fd, &c, 1) == 1 && c != '\n') line += c;
    return line;
  };
  EXPECT_EQ(read_line(reader.get()).find("store: listening at "), 0u);

  UniqueFd client(socket(AF_UNIX, SOCK_STREAM, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  control.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const std::string commands = "put SCENARIO_OBJECT id: 'a'\nget SCENARIO_OBJECT\n";
  ASSERT_EQ(write(client.get(), commands.data(), commands.size()), static_cast<ssize_t>(commands.size()));
  EXPECT_EQ(read_line(client.get()), R"({"ok":true})");
  EXPECT_NE(read_line(client.get()).find(R"("object":"id: \"a\"")"), std::string::npos);

  ASSERT_EQ(kill(pid, SIGTERM), 0);
  int status = -1;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_NE(access(control.c_str(), F_OK), 0) << "the socket is gone";
}

}  // namespace
}  // namespace zem::sim
