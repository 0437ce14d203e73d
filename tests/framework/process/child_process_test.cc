#include "framework/process/child_process.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "platform/core/thread.h"

namespace zem::Tarvik {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class ChildProcessTest : public ::testing::Test {
 protected:
  ChildProcessTest() { ::signal(SIGPIPE, SIG_IGN); }

  static ChildProcess::Options Shell(const std::string& script) {
    ChildProcess::Options options;
    options.argv = {"/bin/sh", "-c", script};
    options.step = milliseconds(50);
    return options;
  }
};

// A child that prints more than a pipe holds before it reads would deadlock a runner that first writes.
TEST_F(ChildProcessTest, BothDirectionsFlowAtOnce) {
  ChildProcess::Options options = Shell("cat; echo done >&2");
  options.input = std::string(1 << 20, 'a');
  options.output_limit = 2 << 20;
  const ChildResult result = ChildProcess(options).Run();
  EXPECT_EQ(result.end, ChildEnd::kExited);
  EXPECT_EQ(result.value, 0);
  EXPECT_EQ(result.output, options.input);
  EXPECT_EQ(result.errors, "done\n");
  EXPECT_EQ(result.input_error, 0);
}

TEST_F(ChildProcessTest, OutputRules) {
  ChildProcess::Options last = Shell("seq 1 100000; echo end");
  last.output_limit = 4;
  EXPECT_EQ(ChildProcess(last).Run().output, "end\n");

  ChildProcess::Options ended = Shell("exec yes");
  ended.output_rule = ChildProcess::OutputRule::kEndChild;
  ended.output_limit = 100;
  const ChildResult result = ChildProcess(ended).Run();
  EXPECT_EQ(result.end, ChildEnd::kOutputLimit);
  EXPECT_EQ(result.output.size(), 100u);

  std::string streamed;
  ChildProcess::Options stream = Shell("seq 1 20000");
  stream.on_output = [&](std::string_view part) { streamed += part; };
  EXPECT_EQ(ChildProcess(stream).Run().output, "");
  EXPECT_EQ(streamed.size(), 108894u);
}

// Whatever the child ignores, its runner gets it away and leaves no zombie.
TEST_F(ChildProcessTest, EndsInSteps) {
  struct Case {
    const char* script;
    bool by_flag;
    ChildEnd expected;
  };
  for (const Case& c : {Case{"exec sleep 600", true, ChildEnd::kStopped},
                        Case{"trap '' INT; exec sleep 600", true, ChildEnd::kStopped},
                        Case{"trap '' INT TERM; while :; do sleep 0.01; done", true, ChildEnd::kStopped},
                        Case{"trap '' INT TERM; while :; do sleep 0.01; done", false, ChildEnd::kTimedOut}}) {
    const std::atomic<bool> stop{true};
    ChildProcess::Options options = Shell(c.script);
    options.own_group = true;
    if (c.by_flag) {
      options.stop = &stop;
    } else {
      options.time_limit = milliseconds(20);
    }
    ChildProcess child(options);
    const ChildResult result = child.Run();
    EXPECT_EQ(result.end, c.expected) << c.script;
    EXPECT_EQ(::kill(result.pid, 0), -1) << c.script;
    EXPECT_EQ(child.pid(), -1);
  }
}

TEST_F(ChildProcessTest, StopFromAnotherThreadNeedsNoFlag) {
  ChildProcess child(Shell("exec sleep 600"));
  NativeThread stopper([&] { child.Stop(); });
  EXPECT_EQ(child.Run().end, ChildEnd::kStopped);
}

// Who inherits the pipes of a child that has ended must not hold up its runner.
TEST_F(ChildProcessTest, GrandchildrenAreNotWaitedFor) {
  const ChildResult result = ChildProcess(Shell("sleep 5 & echo started; exit 3")).Run();
  EXPECT_EQ(result.end, ChildEnd::kExited);
  EXPECT_EQ(result.value, 3);
  EXPECT_EQ(result.output, "started\n");
}

TEST_F(ChildProcessTest, SignalsAndMissingProgramsAreTold) {
  EXPECT_EQ(ChildProcess(Shell("kill -TERM $$")).Run().end, ChildEnd::kSignalled);
  ChildProcess::Options options;
  options.argv = {"/nonexistent"};
  const ChildResult result = ChildProcess(options).Run();
  EXPECT_EQ(result.end, ChildEnd::kNotStarted);
  EXPECT_EQ(result.value, ENOENT);
}

}  // namespace
}  // namespace zem::Tarvik
