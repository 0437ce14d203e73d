#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/pktcap/tools/knlctl_proxy.h"
#include "platform/core/thread.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

// A helper that answers as the file "mode" says, anew for each request.
constexpr const char* kHelper = R"(
import json, os, signal, sys
folder = os.path.dirname(os.path.abspath(__file__))
open(folder + "/starts", "a").write("x")
while True:
    header = sys.stdin.buffer.read(16)
    if len(header) < 16: sys.exit()
    request = json.loads(sys.stdin.buffer.read(int(header[8:15])))
    assert request == {"url": "/world/all", "method": "GET", "request": {}} and header[:8] == b"LENGTH: "
    mode = open(folder + "/mode").read()
    worlds = [{"worldId": 7, "worldName": "pktcap-uw", "commandLine": "a \"b\"", "usedTime": -1}, {}, 5]
    body = json.dumps({"status": 3 if mode == "refuse" else 0, "error_msg": "no", "response": worlds}).encode()
    if mode == "text": body = b"status 0"
    data = b"LENGTH: %7d\n" % len(body) + body
    if mode == "header": data = b"LENGTH: 0x00010\n" + body
    if mode == "long": data = b"LENGTH: 1048576\n" + body
    if mode == "half": data = data[:30]
    if mode == "hang": signal.pause()
    sys.stdout.buffer.write(data)
    sys.stdout.buffer.flush()
    if mode in ("half", "exit"): sys.exit()
)";

class KnlctlProxyTest : public ::testing::Test {
 protected:
  KnlctlProxyTest() {
    tools_.python = "/usr/bin/python3";
    tools_.process_proxy = dir_.Write("helper", kHelper);
  }

  test::LogCapture log_;
  test::TempDir dir_;
  CaptureTools tools_;
};

TEST_F(KnlctlProxyTest, ListsTheProcessesOfTheHost) {
  dir_.Write("mode", "good");
  KnlctlProxy proxy(tools_);
  for (int i = 0; i < 2; ++i) {
    const auto worlds = proxy.Worlds();
    ASSERT_TRUE(worlds.has_value());
    ASSERT_EQ(worlds->size(), 3u);
    EXPECT_EQ(worlds->front().world_id, 7u);
    EXPECT_EQ(worlds->front().world_name, "pktcap-uw");
    EXPECT_EQ(worlds->front().command_line, "a \"b\"");
    EXPECT_EQ(worlds->front().used_time, 0u);
  }
  EXPECT_EQ(dir_.Read("starts"), "x") << "one helper serves all";
  EXPECT_TRUE(log_.Contains("Found 3 worlds"));
  // It died behind its last answer: the next request starts another.
  dir_.Write("mode", "exit");
  EXPECT_TRUE(proxy.Worlds().has_value());
  EXPECT_TRUE(proxy.Worlds().has_value());
  EXPECT_EQ(log_.Count("knlctlProxy daemon started as pid"), 2u);
}

// Nonsense costs ten helpers, and no answer of one goes to the request of another.
TEST_F(KnlctlProxyTest, GivesUpAfterTenAttempts) {
  for (const char* const mode : {"header", "long", "half", "text"}) {
    dir_.Write("mode", mode);
    dir_.Write("starts", "");
    log_.Clear();
    KnlctlProxy proxy(tools_);
    EXPECT_FALSE(proxy.Worlds().has_value()) << mode;
    EXPECT_EQ(log_.Count("Retry again at /world/all"), 10u) << mode;
    EXPECT_EQ(dir_.Read("starts").size(), 10u) << mode << ::testing::PrintToString(log_.Texts());
  }
  dir_.Write("mode", "refuse");
  log_.Clear();
  EXPECT_FALSE(KnlctlProxy(tools_).Worlds().has_value());
  EXPECT_TRUE(log_.Contains("knlctlProxy returned an error: no at /world/all"));
  EXPECT_FALSE(log_.Contains("Attempt")) << "a refusal is an answer";
  tools_.python = dir_.Path("none");
  log_.Clear();
  EXPECT_FALSE(KnlctlProxy(tools_).Worlds().has_value());
  EXPECT_EQ(log_.Count("knlctlProxy failed to start"), 10u);
}

TEST_F(KnlctlProxyTest, AStopEndsARequestAtOnce) {
  dir_.Write("mode", "hang");
  KnlctlProxy proxy(tools_);
  NativeThread request([&] { EXPECT_FALSE(proxy.Worlds().has_value()); });
  SleepFor(std::chrono::seconds(1));
  const TimePoint begin = Clock::Process().Now();
  proxy.RequestStop();
  request.Join();
  EXPECT_LT(Clock::Process().Now() - begin, std::chrono::seconds(8));
  EXPECT_TRUE(log_.Contains("knlctlProxy daemon stopped as pid"));
}

}  // namespace
}  // namespace zem::Tarvik
