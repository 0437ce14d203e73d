#include "ctl/daemon_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "ctl/outcome.h"
#include "platform/core/thread.h"
#include "tests/support/temp_dir.h"
#include "tests/support/unix_peer.h"

namespace zem::ctl {
namespace {

using ::testing::HasSubstr;

struct Outcome {
  int code = kHealthy;
  std::string text;
};

class DaemonClientTest : public ::testing::Test {
 protected:
  // `serve` is what stands in the daemon's place, once the connection is there.
  template <class Serve>
  Outcome Ask(const Serve& serve) {
    const std::string path = folder_.Path("socket" + std::to_string(++asked_));
    test::UnixPeer peer(path);
    NativeThread daemon([&] {
      peer.Accept();
      serve(peer);
    });
    Outcome outcome;
    try {
      outcome.text = DaemonClient(path, std::chrono::seconds(20)).Ask("get/status");
    } catch (const Failure& failure) {
      outcome = {failure.code(), failure.what()};
    }
    daemon.Join();
    return outcome;
  }
  // Reads the question, and answers under its id.
  static void Reply(test::UnixPeer& peer, const std::string& before, const std::string& members) {
    std::string question;
    while (!question.ends_with('}')) question += peer.Receive(1);
    std::smatch id;
    ASSERT_TRUE(std::regex_search(question, id, std::regex(R"("id":(\d+))"))) << question;
    peer.Send(before + "{\"id\":" + id[1].str() + "," + members + "}");
  }

  test::TempDir folder_;
  int asked_ = 0;
};

// A program that a signal ends has no exit code that a script could read: writing to a socket that the daemon
// has closed must be an error like any other.
TEST_F(DaemonClientTest, DaemonThatHangsUpIsNoDaemon) {
  for (int i = 0; i < 50; ++i) {
    const Outcome outcome = Ask([](test::UnixPeer& peer) { peer.Close(); });
    EXPECT_EQ(outcome.code, kNoDaemon);
    EXPECT_THAT(outcome.text, HasSubstr("no daemon answers on "));
  }
}

TEST_F(DaemonClientTest, AnswersAndRefusalsComeWithoutTheirLinesEnd) {
  struct Case {
    const char* before;
    const char* reply;
    int code;
    const char* text;
  };
  for (const Case& c : {
           Case{"", R"("result":"all well\n","error":null)", kHealthy, "all well"},
           Case{"", R"("result":null,"error":"not now\n")", kDegraded, "not now"},
           Case{"", R"("result":{"a":1},"error":null)", kNoDaemon, "not of the command protocol"},
           Case{R"({"id":"7","result":"of another","error":null})", R"("result":"ours","error":null)",
                kHealthy, "ours"},
           Case{"\x01\xff garbage", "", kNoDaemon, "no daemon answers"},
       }) {
    const Outcome outcome = Ask([&c](test::UnixPeer& peer) { Reply(peer, c.before, c.reply); });
    EXPECT_EQ(outcome.code, c.code) << c.reply;
    EXPECT_THAT(outcome.text, HasSubstr(c.text));
    EXPECT_FALSE(outcome.text.ends_with('\n')) << c.reply;
  }
}

// A limit of 100000 that reads 1e+05 is not what stands in the options.
TEST(JsonTest, NumbersReadAsPeopleWriteThem) {
  const Json json = Json::Parse(R"([100000,0,-7,1234567890123,0.25,1e300,"x",true])");
  EXPECT_EQ(json.text(), "100000, 0, -7, 1234567890123, 0.25, 1e+300, x, yes");
  EXPECT_EQ(Json::Quoted("a\"\n\xff"), R"("a\"\n?")");
}

}  // namespace
}  // namespace zem::ctl
