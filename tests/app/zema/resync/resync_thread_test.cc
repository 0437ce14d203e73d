#include "app/zema/resync/resync_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <cstdlib>

#include "app/zema/hostlib/switch_library.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/state/health_record.h"
#include "app/zema/vifqueue/resync_state.h"
#include "app/zema/vifqueue/vif_handler.h"
#include "framework/node/host_identity.h"
#include "platform/core/virtual_clock.h"
#include "tests/app/zema/proxy/fake_lum_commands.h"
#include "tests/app/zema/state/no_publisher.h"
#include "tests/app/zema/state/test_options.h"
#include "tests/support/log_capture.h"
#include "tests/support/process_end.h"
#include "tests/support/temp_dir.h"

namespace zem::zema {
namespace {

using std::chrono::hours;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Carries out nothing; `then` is what happens on the host meanwhile.
class ScriptedVifHandler : public VifHandler {
 public:
  void DoVifPortOperation(VifRequest& request, Thread&) override {
    served.push_back(request.ToString());
    if (then) then(request);
    if (request.vif_id == "refused") request.error_text = "no such switch";
    if (request.vif_id == "thrown") throw std::runtime_error("the switch is gone");
  }
  void Arrived(VifRequest&) override {}
  void HostCame() override {}
  void EndWaits() override {}
  std::vector<std::string> served;
  std::function<void(const VifRequest&)> then;
};

class ResyncThreadTest : public ::testing::Test {
 protected:
  ResyncThreadTest() { host_.SetHostId("node"); }
  ~ResyncThreadTest() override { thread_.reset(); }

  ResyncThread::Settings Settings() {
    return {&health_, &host_, &state_, &options_.store, &ports_.holders()};
  }
  void Start() {
    ResyncThread::Settings settings = Settings();
    settings.command = [this](const std::string& command, std::string* output) {
      return Script(command, output);
    };
    thread_ = std::make_unique<ResyncThread>(std::move(settings), vif_handler_);
    thread_->Start();
  }
  // What the script was called with, as "second: interval vm-check".
  int Script(const std::string& command, std::string* output) {
    const std::string begin = std::string("python ") + ResyncRound::kScript + " ";
    if (command.rfind(begin, 0) != 0) return 0;
    const std::lock_guard lock(mutex_);
    EXPECT_TRUE(state_.InProgress());
    std::string words = command.substr(begin.size());
    words.resize(words.size() - std::string(" 2>&1").size());
    rounds_.push_back(std::to_string((clock_.Now() - begin_) / seconds(1)) + ": " + words);
    *output = reply_;
    return result_;
  }
  std::vector<std::string> Rounds() {
    const std::lock_guard lock(mutex_);
    return std::exchange(rounds_, {});
  }
  // The clock stands still meanwhile, because this thread works.
  void AwaitRounds(size_t count) {
    for (int i = 0; i < 30'000; ++i) {
      {
        const std::lock_guard lock(mutex_);
        if (rounds_.size() >= count) return;
      }
      ::poll(nullptr, 0, 1);
    }
    FAIL() << "no round";
  }
  void AwaitLine(const char* text) {
    for (int i = 0; i < 30'000 && !log_.Contains(text); ++i) ::poll(nullptr, 0, 1);
    ASSERT_TRUE(log_.Contains(text));
  }
  void SetReply(std::string reply, int result = 0) {
    const std::lock_guard lock(mutex_);
    reply_ = std::move(reply);
    result_ = result;
  }

  VirtualClock clock_;
  const TimePoint begin_ = clock_.Now();
  test::LogCapture log_;
  NoPublisher publisher_;
  HealthRecord health_{publisher_, false};
  HostIdentity host_;
  ResyncState state_;
  TestOptions options_;
  FakeLumCommands lum_;
  SwitchLibrary library_;
  PortOpsManager ports_{library_, lum_, host_};
  ScriptedVifHandler vif_handler_;
  std::mutex mutex_;  // guards what follows
  std::string reply_ = "ok\n";
  int result_ = 0;
  std::vector<std::string> rounds_;
  std::unique_ptr<ResyncThread> thread_;
};

TEST_F(ResyncThreadTest, RoundsBeginWithTheHostIdAndComeAtTheInterval) {
  host_.UnsetHostId();
  options_.Set(R"({"resync": {"vmCheckFrequency": 3}})");
  Start();
  clock_.RunFor(seconds(12));
  EXPECT_THAT(Rounds(), IsEmpty());
  health_.mpaConnected();
  EXPECT_TRUE(log_.Contains("Resync Task not ready yet"));
  host_.SetHostId("node");
  clock_.RunFor(seconds(15 + 4 * 3600));
  EXPECT_THAT(Rounds(),
              ElementsAre("15: 3600 0", "3615: 3600 0", "7215: 10800 1", "10815: 3600 0", "14415: 3600 0"));
  EXPECT_FALSE(state_.InProgress());
}

TEST_F(ResyncThreadTest, AnIntervalOfNothingIsAnHour) {
  struct Case {
    int interval;
    int frequency;
    const char* words;
  };
  for (const Case& c : {Case{0, 200, "3600 0"}, Case{-5, 1, "3600 1"}, Case{60, 0, "3600 1"},
                        Case{60, -1, "3600 1"}, Case{2'000'000'000, 1, "2000000000 1"}}) {
    options_.Set(R"({"resync": {"intervalInSec": )" + std::to_string(c.interval) +
                 R"(, "vmCheckFrequency": )" + std::to_string(c.frequency) + "}}");
    Start();
    AwaitRounds(1);
    EXPECT_THAT(Rounds(), ElementsAre(::testing::EndsWith(std::string(": ") + c.words)))
        << c.interval << " " << c.frequency;
    thread_.reset();
  }
}

// Counted in each round, but nobody looks at the VMs while the manager has just come.
TEST_F(ResyncThreadTest, AManagerThatComesAgainIsFollowedClosely) {
  options_.Set(R"({"resync": {"vmCheckFrequency": 3, "intervalInSec": 60}})");
  Start();
  clock_.RunFor(seconds(10));
  health_.mpaConnected();
  AwaitRounds(2);
  clock_.RunFor(seconds(240));
  EXPECT_THAT(Rounds(), ElementsAre("0: 60 0", "10: 60 0", "14: 60 0", "22: 60 0", "38: 60 0", "70: 60 0",
                                    "130: 180 1", "190: 60 0", "250: 60 0"));
}

TEST_F(ResyncThreadTest, WithTheUsualIntervalTheLastCloseRoundIsAfter2048Seconds) {
  Start();
  AwaitRounds(1);
  Rounds();
  health_.mpaConnected();
  AwaitRounds(1);
  clock_.RunFor(hours(4));
  std::vector<std::string> expected;
  long at = 0;
  for (long step = 4; step <= 4096; step *= 2) {
    expected.push_back(std::to_string(at) + ": 3600 0");
    at += step;
  }
  at -= 4096;
  for (at += 3600; at <= 4 * 3600; at += 3600) expected.push_back(std::to_string(at) + ": 3600 0");
  EXPECT_EQ(Rounds(), expected);
}

TEST_F(ResyncThreadTest, ARoundThatAChangeOfSwitchesPreventedComesAfterIt) {
  options_.Set(R"({"resync": {"disabled": true}})");
  Start();
  clock_.RunFor(seconds(3600));
  EXPECT_THAT(Rounds(), IsEmpty());
  EXPECT_EQ(log_.Count("resync disabled or not ready; check again after 3600 sec"), 2u);
  options_.Set("{}");
  thread_->Allow(false);
  thread_->Allow(true);  // nothing is missed yet, so nothing follows
  thread_->Allow(false);
  clock_.RunFor(seconds(3700));
  EXPECT_THAT(Rounds(), IsEmpty());
  thread_->Allow(true);
  AwaitRounds(1);
  EXPECT_THAT(Rounds(), ElementsAre("7300: 3600 0"));
  EXPECT_TRUE(log_.Contains("Resync woken up before timeout. Not MPA reconnect!"));
}

TEST_F(ResyncThreadTest, DetachmentsGoFirstAndAFailureStopsNothing) {
  health_.mpaConnected();
  SetReply(
      "attach|v1|l1|/vm/a,broken,attach||l1|/vm/a,attach|refused|l1|/vm/b|p1,attach|v2|l2|/vm/c|p2,"
      "detach|v3|p3|l3|/vm/d,detach|thrown|p|l|/vm/e\n");
  Start();
  AwaitRounds(1);
  AwaitLine("Resetting resyncInProgress");
  EXPECT_THAT(
      vif_handler_.served,
      ElementsAre(
          "opId:[ sync-detach-0 ] op:[ SYNC_DETACH_PORT( 1002 )] vif:[v3] ls:[l3] gcf:[/vm/d] lp:[p3]",
          "opId:[ sync-detach-1 ] op:[ SYNC_DETACH_PORT( 1002 )] vif:[thrown] ls:[l] gcf:[/vm/e] lp:[p]",
          "opId:[ sync-attach-0 ] op:[ SYNC_ATTACH_PORT( 1001 )] vif:[v1] ls:[l1] gcf:[/vm/a] lp:[]",
          "opId:[ sync-attach-2 ] op:[ SYNC_ATTACH_PORT( 1001 )] vif:[refused] ls:[l1] gcf:[/vm/b] lp:[p1]",
          "opId:[ sync-attach-3 ] op:[ SYNC_ATTACH_PORT( 1001 )] vif:[v2] ls:[l2] gcf:[/vm/c] lp:[p2]"));
  for (const char* line :
       {"error reply: [broken]", "expecting VIF UUID",
        "[ResyncThread] unable to sync attachment [detach|thrown|p|l|/vm/e]: the switch is gone",
        "[ResyncThread] unable to sync attachment [attach|refused|l1|/vm/b|p1]: no such switch",
        "[ResyncThread] synchronized host local attachment [attach|v2|l2|/vm/c|p2] with MP"}) {
    EXPECT_TRUE(log_.Contains(line)) << line;
  }
}

// The host's own event is newer, whether it came before the list was read or while it is worked off.
TEST_F(ResyncThreadTest, WhatTheHostAskedMeanwhileStands) {
  health_.mpaConnected();
  SetReply("attach|v1|l1|/vm/a,attach|v2|l1|/vm/a,attach|v2|l2|/vm/a");
  vif_handler_.then = [this](const VifRequest& request) {
    if (request.vif_id == "v1") state_.Note("l1", "v2", ResyncState::kDetach);
  };
  Start();
  AwaitRounds(1);
  AwaitLine("Resetting resyncInProgress");
  EXPECT_EQ(vif_handler_.served.size(), 2u);
  EXPECT_TRUE(log_.Contains("ResyncThread Skip sync operation for vif id v2 logical segment l1 detach"));
  EXPECT_FALSE(state_.Noted("l1", "v2"));
}

TEST_F(ResyncThreadTest, ARoundEndsWhenItCannotBeCarriedOut) {
  struct Case {
    const char* reply;
    int result;
    std::function<void()> before;
    std::function<void(const VifRequest&)> then;
    size_t served;
    const char* line;
  };
  const auto connect = [this] { health_.mpaConnected(); };
  constexpr const char* kTwo = "detach|v1|p|l|/a,attach|v2|l|/a";
  const Case cases[] = {
      {kTwo, 0, [] {}, {}, 0, "abort resync because it is disabled or MP to MPA connectivity is down"},
      {kTwo, 1, connect, {}, 0, "failed: ret:[1]"},
      {"error: no host", 1, connect, {}, 0, "sync command returned unexpected reply: [error: no host]"},
      {"error: no manager", 0, connect, {}, 0, "sync command returned unexpected reply: [error: no manager]"},
      {"", 0, connect, {}, 0, "sync command returned unexpected reply: []"},
      {kTwo, 0, [&] { host_.UnsetHostId(); }, {}, 0, "Cannot do sync attach/detach with unset host ID"},
      {kTwo, 0, [&] { host_.SetHostId("node"); }, [this](const VifRequest&) { thread_->Allow(false); }, 1,
       "abort resync because it is disabled"},
      {kTwo, 0, [this] { thread_->Allow(true); }, [this](const VifRequest&) { health_.mpaDisconnected(); }, 1,
       "abort resync because it is disabled"},
  };
  options_.Set(R"({"resync": {"intervalInSec": 10}})");
  Start();
  AwaitRounds(1);
  for (const Case& c : cases) {
    AwaitLine("Resetting resyncInProgress");
    SetReply(c.reply, c.result);
    log_.Clear();
    Rounds();
    vif_handler_.served.clear();
    vif_handler_.then = c.then;
    c.before();
    if (!log_.Contains("Resync Task signaled")) clock_.RunFor(seconds(10));
    AwaitRounds(1);
    AwaitLine("Resetting resyncInProgress");
    EXPECT_EQ(vif_handler_.served.size(), c.served) << c.line;
    EXPECT_TRUE(log_.Contains(c.line)) << c.line;
  }
}

TEST_F(ResyncThreadTest, AScriptThatHangsEndsWithTheThreadAndWithItsTime) {
  test::TempDir directory;
  for (const char* tool : {"python", "ps"}) {
    const std::string path =
        directory.Write(tool, std::string("#!/bin/sh\n[ ${0##*/} = ps ] && exit\necho $$ > ") +
                                  directory.Path("pid") + "\nsleep 600 &\nsleep 600\n");
    ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
  }
  ::setenv("PATH", (directory.Path() + ":" + std::getenv("PATH")).c_str(), 1);
  for (const bool by_stop : {true, false}) {
    log_.Clear();
    ResyncThread::Settings settings = Settings();
    if (!by_stop) {
      options_.Set(R"({"resync": {"intervalInSec": 1}})");
      settings.script_limit = std::chrono::milliseconds(1);
    }
    thread_ = std::make_unique<ResyncThread>(std::move(settings), vif_handler_);
    thread_->Start();
    if (by_stop) {
      for (int i = 0; i < 30'000 && directory.Read("pid").empty(); ++i) ::poll(nullptr, 0, 1);
      thread_->Stop();
      thread_->Join();
    } else {
      clock_.RunFor(seconds(2));
    }
    AwaitLine(by_stop ? "errno:[stopped]" : "errno:[took too long]");
    thread_.reset();
    const int pid = std::atoi(directory.Read("pid").c_str());
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(test::HasEnded(pid));
  }
}

}  // namespace
}  // namespace zem::zema
