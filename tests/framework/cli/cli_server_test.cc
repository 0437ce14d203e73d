#include "framework/cli/cli_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <optional>

#include "framework/cli/builtin_commands.h"
#include "framework/cli/json_writer.h"
#include "framework/process/child_process.h"
#include "platform/core/unique_fd.h"
#include "platform/core/unix_socket.h"
#include "platform/metrics/metrics.h"
#include "platform/metrics/queue_gauge.h"
#include "platform/provider/work_group.h"
#include "platform/wft/workflow_util.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class CliServerTest : public ::testing::Test {
 protected:
  CliServerTest() : group_(new WorkGroup("framework", registry_, WorkGroup::kUnbounded)) {
    ::signal(SIGPIPE, SIG_IGN);
    group_->Start(1);
    server_ = new CliServer(group_, directory_.Path("cli"));
  }
  ~CliServerTest() override { End(); }

  void End() {
    server_->Stop();
    group_->Stop();
  }

  // What the operators' own tool prints.
  std::string Call(std::vector<std::string> command, int expected_exit = 0) {
    ChildProcess::Options options;
    options.argv = {"ovs-appctl", "-t", directory_.Path("cli")};
    options.argv.insert(options.argv.end(), command.begin(), command.end());
    options.time_limit = std::chrono::seconds(30);
    const ChildResult result = ChildProcess(std::move(options)).Run();
    EXPECT_EQ(result.end, ChildEnd::kExited);
    EXPECT_EQ(result.value, expected_exit) << result.errors;
    std::string text = result.output + result.errors;
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
  }

  // The server answers once it listens, which is a moment after its socket is there.
  void StartAndWait() {
    server_->Start();
    while (ConnectUnix(OpenUnixStream().get(), directory_.Path("cli")) != 0) {
      SleepFor(std::chrono::milliseconds(1));
    }
  }

  test::LogCapture capture_{kLogDebug};
  test::TempDir directory_;
  metrics::Registry registry_;
  boost::intrusive_ptr<WorkGroup> group_;
  boost::intrusive_ptr<CliServer> server_;
};

// A connection that cannot be taken for want of a descriptor waits; the loop does not turn for it.
TEST_F(CliServerTest, PausesAtTheDescriptorLimit) {
  server_->AddCommands(BuiltinCommands());
  StartAndWait();
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const UniqueFd client = OpenUnixStream();
  // Every descriptor below the new limit is taken.
  rlimit tight = before;
  tight.rlim_cur = static_cast<rlim_t>(client.get()) + 20;
  std::vector<UniqueFd> taken;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  for (int fd = ::dup(client.get()); fd >= 0; fd = ::dup(client.get())) taken.emplace_back(fd);
  EXPECT_EQ(ConnectUnix(client.get(), directory_.Path("cli")), 0);
  while (!capture_.Contains("CliServer: no connection can be taken")) {
    SleepFor(std::chrono::milliseconds(1));
  }
  taken.clear();
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_THAT(Call({"get/loglevel"}), HasSubstr("debug"));
  // The call may be answered in the same turn of the loop, before the line.
  while (!capture_.Contains("CliServer: connections can be taken again")) {
    SleepFor(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(capture_.Count("CliServer: no connection can be taken"), 1u);
}

TEST_F(CliServerTest, LevelCommands) {
  EXPECT_TRUE(capture_.Contains("Tarvik cli socket " + directory_.Path("cli")));
  server_->AddCommands(BuiltinCommands());
  StartAndWait();
  struct Case {
    std::vector<std::string> command;
    const char* reply;
    const char* line;
  };
  for (const Case& c : {
           Case{{"set/loglevel", "trace"},
                "Setting Tarvik logging level from debug to trace successfully",
                "CliServer: setting log level from debug to trace"},
           Case{{"set/loglevel", "loud"},
                "Setting Tarvik logging level from trace to loud failed",
                "CliServer: setting log level from trace to loud"},
           Case{{"get/loglevel"},
                "Current Tarvik logging level is: trace",
                "CliServer: getting log level trace"},
           Case{{"set/lib-metrics/loglevel", "off"},
                "Setting Tarvik metrics logging level from info to off successfully",
                "CliServer: setting metrics log level from info to off"},
           Case{{"get/lib-metrics/loglevel"},
                "Current Tarvik metrics logging level is: off",
                "CliServer: getting metrics log level off"},
           Case{{"set/lib-net/loglevel", "warn"},
                "Setting Tarvik net logging level from info to warn successfully",
                "CliServer: setting net log level from info to warn"},
           Case{{"get/lib-net/loglevel"},
                "Current Tarvik net logging level is: warn",
                "CliServer: getting net log level warn"},
           Case{{"set/lib-rpc/loglevel", "fatal"},
                "Setting Tarvik rpc logging level from info to fatal successfully",
                "CliServer: setting rpc log level from info to fatal"},
           Case{{"get/lib-rpc/loglevel"},
                "Current Tarvik rpc logging level is: fatal",
                "CliServer: getting rpc log level fatal"},
           Case{{"set/lib-wft/loglevel", "error"},
                "Setting Tarvik workflow tracing logging level from info to error successfully",
                "CliServer: setting workflow tracing log level from info to error"},
           Case{{"get/lib-wft/loglevel"},
                "Current Tarvik workflow tracing logging level is: error",
                "CliServer: getting workflow tracing log level error"},
           Case{{"set/lib-sha/loglevel", "debug"},
                "Setting Tarvik SHA client lib logging level from info to debug successfully",
                "CliServer: setting SHA client lib log level from info to debug"},
           Case{{"get/lib-sha/loglevel"},
                "Current Tarvik SHA client lib logging level is: debug",
                "CliServer: getting SHA client lib log level debug"},
           Case{{"set/lib-wft/tracelevel", "debug"},
                "Setting Tarvik trace level from info to debug successfully",
                ""},
           Case{{"set/lib-wft/tracelevel", "fatal"},
                "Setting Tarvik trace level from debug to fatal failed",
                ""},
           Case{{"get/lib-wft/tracelevel"},
                "Current Tarvik trace level is: debug",
                "CliServer: getting trace level debug"},
       }) {
    EXPECT_EQ(Call(c.command), c.reply);
    EXPECT_TRUE(capture_.Contains(c.line)) << c.line;
  }
  EXPECT_TRUE(capture_.Contains("SetLogLevel set tarvik logLevel to: trace"));
  EXPECT_THAT(Call({"set/loglevel"}, 2), HasSubstr("\"set/loglevel\" command requires at least 1 arguments"));
  EXPECT_THAT(Call({"get/loglevel", "x"}, 2), HasSubstr("takes at most 0 arguments"));
  EXPECT_THAT(Call({"list-commands"}), HasSubstr("set/lib-sha/loglevel"));
  for (int i = 0; i < static_cast<int>(Library::kCount); ++i)
    LibraryLevel(static_cast<Library>(i)) = kLogInfo;
  wft::WorkflowUtil::SetTraceLevel(wft::kTraceInfo);
}

TEST_F(CliServerTest, TablesComeInTheirOrder) {
  server_->AddCommands(BuiltinCommands());
  server_->AddCommands({MpaClientCommand([] {
    return std::vector<MpaClientRow>{
        {"SwitchingVertical", 2, 9007199254740993}, {"a\"b", 1, -1}, {"x", 0, 0}};
  })});
  StartAndWait();
  EXPECT_EQ(Call({"get/mpaclient"}),
            R"([{"APP":"SwitchingVertical","STATUS":"UP","COOKIEID":9007199254740993},)"
            R"({"APP":"a\"b","STATUS":"DOWN","COOKIEID":-1},{"APP":"x","STATUS":"UNKNOWN","COOKIEID":0}])");
  QueueGauge queue("numbers", 2);
  queue.Entered();
  queue.Entered();
  queue.Refused();
  queue.Left();
  EXPECT_THAT(Call({"get/queues"}),
              ::testing::MatchesRegex(R"(.*\{"QUEUE":"numbers","DEPTH":1,"MOST":2,"LONGEST_WAIT_MS":[0-9]+,)"
                                      R"("DROPPED":1,"LIMIT":2\}\])"));
  const std::string stats = Call({"get/lib-wft/stats"});
  size_t at = 0;
  for (const char* span : {"ChildSpan_", "RootSpan_"}) {
    for (const char* name : {"Total_Req", "Start_Span_Err", "No_Parent_Err", "Invalid_Trace_Ctx_Err",
                             "Sample_Out_Span", "Batch_Span", "Low_Trace_Lvl_Span"}) {
      const size_t found = stats.find("{\"StatsName\":\"" + std::string(span) + name + "\",\"Num\":", at);
      ASSERT_NE(found, std::string::npos) << span << name << " in " << stats;
      at = found;
    }
  }
}

// A handler that works elsewhere must not hold up other clients; one that forgets its answer must not hang
// its own.
TEST_F(CliServerTest, AnswersMayComeLater) {
  std::mutex mutex;
  std::optional<CliReply> held;
  Condition arrived;
  server_->AddCommands({
      {"hold", "", 0, CliCommand::kNoLimit,
       [&](const CliArguments& arguments, CliReply reply) {
         EXPECT_EQ(arguments, CliArguments({"a", "b c"}));
         std::lock_guard lock(mutex);
         held.emplace(std::move(reply));
         arrived.NotifyAll();
       }},
      {"forget", "", 0, 0, [](const CliArguments&, CliReply) {}},
      {"throw", "", 0, 0, [](const CliArguments&, CliReply) { throw std::runtime_error("broken"); }},
      {"refuse", "", 0, 0, [](const CliArguments&, CliReply reply) { reply.Error("Not running"); }},
  });
  StartAndWait();
  std::string late;
  NativeThread waiting([&] { late = Call({"hold", "a", "b c"}); });
  {
    std::unique_lock lock(mutex);
    arrived.Wait(lock, [&] { return held.has_value(); });
  }
  EXPECT_THAT(Call({"forget"}, 2), HasSubstr("The command gave no answer"));
  EXPECT_THAT(Call({"throw"}, 2), HasSubstr("broken"));
  EXPECT_THAT(Call({"refuse"}, 2), HasSubstr("Not running"));
  server_->AddCommands(
      {{"added-late", "", 0, 0, [](const CliArguments&, CliReply reply) { reply.Ok("here"); }}});
  EXPECT_EQ(Call({"added-late"}), "here");
  held->Ok("at last");
  waiting.Join();
  EXPECT_EQ(late, "at last");
}

// A client that dies, or answers that outlive the server, must leave it whole.
TEST_F(CliServerTest, ClientsAndServerMayGoFirst) {
  std::mutex mutex;
  std::vector<CliReply> held;
  Condition arrived;
  server_->AddCommands({{"keep", "", 0, 0, [&](const CliArguments&, CliReply reply) {
                           std::lock_guard lock(mutex);
                           held.push_back(std::move(reply));
                           arrived.NotifyAll();
                         }}});
  StartAndWait();
  for (size_t i = 0; i < 2; ++i) {
    const UniqueFd client = OpenUnixStream();
    ASSERT_EQ(ConnectUnix(client.get(), directory_.Path("cli")), 0);
    const std::string request = R"({"method":"keep","params":[],"id":0})";
    ASSERT_EQ(::send(client.get(), request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    std::unique_lock lock(mutex);
    arrived.Wait(lock, [&] { return held.size() == i + 1; });
  }
  held[0].Ok("to nobody");
  const UniqueFd garbage = OpenUnixStream();
  ASSERT_EQ(ConnectUnix(garbage.get(), directory_.Path("cli")), 0);
  ASSERT_GT(::send(garbage.get(), "\xff{]]", 4, 0), 0);
  EXPECT_THAT(Call({"list-commands"}), StartsWith("The available commands are:"));
  End();
  held[1].Ok("too late");
  EXPECT_TRUE(capture_.Contains("Cli server terminated"));
}

TEST_F(CliServerTest, StopBeforeTheLoopRuns) {
  server_->Stop();
  server_->Start();
  group_->Stop();  // would wait forever for a loop that missed the stop
  EXPECT_TRUE(capture_.Contains("Cli server terminated"));
}

TEST_F(CliServerTest, SocketThatCannotBeMadeIsTold) {
  server_ = new CliServer(group_, directory_.Path("missing/cli"));
  server_->Start();
  group_->Stop();
  EXPECT_TRUE(capture_.Contains(
      "errorCode=\"OPS00302\"] Cannot create Tarvik unixctl server: No such file or directory"));
}

// The library under the server takes signals over; the daemon's own handling must survive that.
TEST_F(CliServerTest, SignalsStayTheDaemons) {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGALRM}) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL) << signal;
  }
}

// A name comes from the manager; one byte that is no UTF-8 would cost the reader the whole answer.
TEST(JsonValueTest, TextIsAlwaysUtf8) {
  EXPECT_EQ(JsonValue::Object()
                .Add("name",
                     "w\xff"
                     "b \xc3\xa9")
                .Text(),
            "{\"name\":\"w?b \xc3\xa9\"}");
}

}  // namespace
}  // namespace zem::Tarvik
