// The handler against the host's real script, in a sandbox where both have their real names.

#include "app/zema/proxy/lum_handler.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <csignal>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <mutex>
#include <sstream>

#include "framework/process/shutdown_pipe.h"
#include "platform/core/thread.h"
#include "sim/sandbox/sandbox.h"
#include "tests/app/zema/proxy/lum_sandbox.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox_test.h"

namespace zem::zema {
namespace {

using namespace std::chrono_literals;

size_t Count(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

using LumHandlerTest = test::LumSandbox;
using test::Frames;
using test::Write;

TEST_F(LumHandlerTest, LogsInAndAnswers) {
  EXPECT_EQ(Run([](test::LogCapture& log, LumSettings settings, std::string* told) {
              settings.options = [] { return LumOptions{1000, "debug", true}; };
              Write("lum.ready", "3");
              LumHandler handler(settings);
              SANDBOX_EXPECT(handler.SetUp("user", "") == 0);
              SANDBOX_EXPECT(*told == "down up ");
              SANDBOX_EXPECT(!handler.pid().empty());
              const std::string frames = Frames();
              const size_t level = frames.find("loglevel=debug");
              const size_t option = frames.find("option=no-vxlan-stack");
              const size_t login = frames.find("login=7.0.3|user|");
              SANDBOX_EXPECT(level < option && option < login && login != std::string::npos);
              SANDBOX_EXPECT(Count(frames, "initializing") == 3);
              // Only a complete reply counts.
              std::string out;
              Write("faults", "^query\t0\t1\treply\tok|a\n^list\t0\t9\treply\t\n");
              SANDBOX_EXPECT(handler.InvokeCommand("query()", "ok", &out) == -1);
              SANDBOX_EXPECT(out == "ok|a");
              SANDBOX_EXPECT(handler.InvokeCommand("list()", "", &out) == 0 && out.empty());
              SANDBOX_EXPECT(handler.InvokeRPC(LumOperation::kHostProfile, "data", &out) == 1 && out.empty());
              SANDBOX_EXPECT(handler.InvokeRPC(LumOperation::kVmPathOfVif, "vifId=v", &out) == 0);
              SANDBOX_EXPECT(out == "no VM has VIF [v]");
              SANDBOX_EXPECT(*told == "down up ");
              handler.TerminateZemaLumPy();
              SANDBOX_EXPECT(log.Contains("terminating zemaLum.py process ["));
              return 0;
            }),
            0);
}

TEST_F(LumHandlerTest, AScriptThatIsLoggedInIsNotAskedAgain) {
  EXPECT_EQ(Run([](test::LogCapture& log, LumSettings settings, std::string* told) {
              Write("lum.start", "ready");
              LumHandler handler(settings);
              SANDBOX_EXPECT(handler.SetUp("user", "") == 0);
              SANDBOX_EXPECT(*told == "down up ");
              SANDBOX_EXPECT(Frames().find("login=") == std::string::npos);
              return 0;
            }),
            0);
}

// The ways in which an exchange can break: a text command fails and the next one starts the script again; a
// binary call starts it at once.
TEST_F(LumHandlerTest, BrokenExchanges) {
  EXPECT_EQ(Run([](test::LogCapture& log, LumSettings settings, std::string* told) {
              LumHandler handler(settings);
              SANDBOX_EXPECT(handler.SetUp("user", "") == 0);
              std::string out;
              for (const char* action : {"close", "exit", "half-header", "half-text", "too-long"}) {
                Write("faults", std::string("^break\t0\t1\t") + action + "\n");
                told->clear();
                SANDBOX_EXPECT(handler.InvokeCommand("break " + std::string(action), "", &out) == -1);
                SANDBOX_EXPECT(out == "socket read failed");
                SANDBOX_EXPECT(!handler.connected() && *told == "down ");
                SANDBOX_EXPECT(handler.InvokeCommand("next", "", &out) == -1);
                SANDBOX_EXPECT(out == "LumHandler not initialized");
                SANDBOX_EXPECT(*told == "down up ");
                SANDBOX_EXPECT(handler.InvokeCommand("next", "", &out) == 0);

                Write("faults", std::string("^op 22\t0\t1\t") + action + "\n");
                told->clear();
                SANDBOX_EXPECT(handler.InvokeRPC(LumOperation::kDisableRuntimeUpdates, "", &out) == 2);
                SANDBOX_EXPECT(out == "Internal Socket error in reading data.");
                SANDBOX_EXPECT(*told == "down up " && handler.connected());
              }
              return 0;
            }),
            0);
}

// When a script does not start, the handler fails fast, and each call tries again.
TEST_F(LumHandlerTest, FailedStarts) {
  EXPECT_EQ(Run([](test::LogCapture& log, LumSettings settings, std::string* told) {
              std::string out;
              {
                LumSettings missing = settings;
                missing.options = [] { return LumOptions{5}; };
                missing.script = "/nowhere.py";
                LumHandler handler(missing);
                SANDBOX_EXPECT(handler.SetUp("user", "") == -1);
                SANDBOX_EXPECT(log.Contains("Empty pid in process list for zemaLum.py."));
              }
              Write("faults", "^login\t0\t2\treply\tno\n");
              LumHandler handler(settings);
              SANDBOX_EXPECT(handler.SetUp("user", "") == -1);
              SANDBOX_EXPECT(log.Contains("Unexpected reply for username command: no"));
              SANDBOX_EXPECT(told->find("up") == std::string::npos);
              SANDBOX_EXPECT(handler.InvokeCommand("x", "", &out) == -1);
              SANDBOX_EXPECT(out == "LumHandler not initialized");
              SANDBOX_EXPECT(handler.InvokeCommand("x", "", &out) == -1);
              SANDBOX_EXPECT(handler.InvokeCommand("x", "", &out) == 0);
              return 0;
            }),
            0);
}

// A shutdown in the middle of a start ends the start.
TEST_F(LumHandlerTest, ShutdownEndsAStart) {
  EXPECT_EQ(Run([](test::LogCapture& log, LumSettings settings, std::string*) {
              settings.options = [] { return LumOptions{1'000'000}; };
              settings.script = "/nowhere.py";
              NativeThread stopper([] {
                SleepFor(100ms);
                Tarvik::CloseShutdownPipe();
              });
              LumHandler handler(settings);
              SANDBOX_EXPECT(handler.SetUp("user", "") == -1);
              SANDBOX_EXPECT(!log.Contains("Empty pid in process list"));
              return 0;
            }),
            0);
}

size_t Processes() {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    if (std::isdigit(static_cast<unsigned char>(entry.path().filename().string()[0])) != 0) ++count;
  }
  return count;
}

int RespawnTimes(int times, test::LogCapture& log, LumSettings settings) {
  LumHandler handler(settings);
  SANDBOX_EXPECT(handler.SetUp("user", "") == 0);
  const size_t descriptors = test::OpenDescriptors();
  const size_t processes = Processes();
  std::string out;
  for (int i = 0; i < times; ++i) {
    SANDBOX_EXPECT(handler.InvokeRPC(LumOperation::kDisableRuntimeUpdates, "", &out) == 2);
    SANDBOX_EXPECT(handler.connected());
    log.Clear();
  }
  SANDBOX_EXPECT(test::OpenDescriptors() == descriptors);
  SANDBOX_EXPECT(Processes() == processes);
  return 0;
}

// Restarts leave behind no process, running or zombie, and no descriptor.
TEST_F(LumHandlerTest, RespawnsLeaveNothingBehind) {
  EXPECT_EQ(Run([](test::LogCapture& log, LumSettings settings, std::string*) {
              Write("lum.start", "ready");
              Write("faults", "^op 22$\t0\t1000\texit\n");
              return RespawnTimes(50, log, settings);
            }),
            0);
}

TEST_F(LumHandlerTest, AThousandRespawnsLeaveNothingBehind) {
  EXPECT_EQ(Run([](test::LogCapture& log, LumSettings settings, std::string*) {
              std::filesystem::remove("/usr/local/bin/python");
              std::filesystem::create_symlink(std::string(sim::kNodeDirectory) + "/stand_in",
                                              "/usr/local/bin/python");
              return RespawnTimes(1000, log, settings);
            }),
            0);
}

std::string WaitFor(const std::function<bool()>& there) {
  for (int i = 0; i < 1000 && !there(); ++i) SleepFor(20ms);
  return there() ? "" : "it never came";
}

// Without any call, a script that dies is reported down at once and started again, even when it refuses the
// login.
TEST_F(LumHandlerTest, AScriptThatDiesBetweenCallsIsReportedDownAndRestarted) {
  EXPECT_EQ(Run([](test::LogCapture& log, LumSettings settings, std::string*) {
              std::mutex mutex;
              std::string told;
              settings.set_ready = [&](bool ready) {
                const std::lock_guard lock(mutex);
                told += ready ? "up " : "down ";
              };
              const auto have = [&](const char* wanted) {
                return WaitFor([&] {
                  const std::lock_guard lock(mutex);
                  return told == wanted;
                });
              };
              settings.respawn_pause = 20ms;
              LumHandler handler(settings);
              SANDBOX_EXPECT(handler.SetUp("user", "") == 0);
              handler.StartWatching();
              Write("faults", "^login\t0\t3\treply\tno\n");
              SANDBOX_EXPECT(::kill(std::stoi(handler.pid()), SIGKILL) == 0);
              SANDBOX_EXPECT(have("down up down up ").empty());
              SANDBOX_EXPECT(log.Count("Unexpected reply for username command: no") == 3);
              std::string out;
              SANDBOX_EXPECT(handler.InvokeCommand("fetchMMode()", "", &out) == 0);
              // A script that was terminated on purpose is not started again.
              handler.TerminateZemaLumPy();
              SANDBOX_EXPECT(handler.InvokeCommand("fetchMMode()", "", &out) == -1);
              SANDBOX_EXPECT(handler.InvokeCommand("fetchMMode()", "", &out) == -1);
              SANDBOX_EXPECT(have("down up down up down ").empty());
              return 0;
            }),
            0);
}

}  // namespace
}  // namespace zem::zema
