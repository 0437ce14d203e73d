#include "tests/support/sandbox_test.h"

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "platform/core/thread.h"

namespace zem {
namespace {

class SandboxProcessesTest : public test::SandboxTest {};

// A process whose parent has died leaves no zombie behind, and the body keeps its own children's ends.
TEST_F(SandboxProcessesTest, OrphansAreReaped) {
  EXPECT_EQ(Run([] {
              int pipe_ends[2];
              if (::pipe(pipe_ends) != 0) return 2;
              const pid_t parent = ::fork();
              if (parent == 0) {
                const pid_t orphan = ::fork();
                if (orphan == 0) ::_exit(0);
                const bool told = ::write(pipe_ends[1], &orphan, sizeof(orphan)) == sizeof(orphan);
                ::_exit(told ? 7 : 1);
              }
              pid_t orphan = 0;
              if (::read(pipe_ends[0], &orphan, sizeof(orphan)) != sizeof(orphan)) return 3;
              int status = 0;
              if (::waitpid(parent, &status, 0) != parent || WEXITSTATUS(status) != 7) return 4;
              for (int i = 0; i < 1000; ++i) {
                if (!std::filesystem::exists("/proc/" + std::to_string(orphan))) return 0;
                SleepFor(std::chrono::milliseconds(10));
              }
              return 5;
            }),
            0);
}

}  // namespace
}  // namespace zem
