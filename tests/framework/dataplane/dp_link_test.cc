#include "framework/dataplane/dp_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <optional>

#include "platform/core/virtual_clock.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/provider.h"
#include "platform/provider/work_group.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/unix_peer.h"

namespace zem::Tarvik {
namespace {

using std::chrono::seconds;

std::string Frame(uint8_t first, uint8_t type, const std::string& body, std::optional<uint32_t> length = {}) {
  std::string frame(kLcpHeaderSize, '\0');
  WriteLcpHeader(type, length.value_or(static_cast<uint32_t>(kLcpHeaderSize + body.size())),
                 reinterpret_cast<uint8_t*>(frame.data()));
  frame[0] = static_cast<char>(first);
  return frame + body;
}

LcpFrame Allocated(const std::string& bytes) {
  LcpFrame frame(static_cast<uint8_t*>(std::malloc(bytes.size())));
  std::memcpy(frame.get(), bytes.data(), bytes.size());
  return frame;
}

class DpLinkTest : public ::testing::Test {
 protected:
  DpLinkTest() : group_(new WorkGroup("tarvik", registry_, WorkGroup::kUnbounded)) {
    group_->Start(2);
    provider_.RunAsync(1);
  }
  ~DpLinkTest() override {
    if (link_ != nullptr) link_->Stop();
    group_->Stop();
    provider_.StopAndWait(false);
  }

  void Start(DataplaneLink::HealthCallback health = nullptr) {
    link_ = new DpLink(
        directory_.Path("link"),
        [this](const uint8_t* frame, size_t length) {
          EXPECT_TRUE(received_.Push(std::string(reinterpret_cast<const char*>(frame), length)));
        },
        nullptr, std::move(health), provider_, group_);
    ASSERT_TRUE(link_->Start());
  }

  std::string Received() { return received_.Pop().value(); }

  VirtualClock clock_;
  test::LogCapture capture_{kLogDebug};
  test::TempDir directory_;
  metrics::Registry registry_;
  AsioZemProvider provider_;
  boost::intrusive_ptr<WorkGroup> group_;
  BoundedQueue<std::string> received_{"received", 100};
  boost::intrusive_ptr<DpLink> link_;
};

// However the stream is cut, frames come out whole and in order.
TEST_F(DpLinkTest, FramesAreDeliveredWhole) {
  test::UnixPeer agent(directory_.Path("link"));
  Start();
  agent.Accept();
  const std::string big(200000, 'b');
  std::string stream;
  const std::vector<std::string> frames = {Frame(0, 1, "hello"), Frame(0x80, 2, "fragment"), Frame(0, 1, ""),
                                           Frame(0, 1, big)};
  for (const std::string& frame : frames) stream += frame;
  for (const char byte : stream.substr(0, 40)) agent.Send(std::string(1, byte));
  agent.Send(stream.substr(40));
  for (const std::string& frame : frames) EXPECT_EQ(Received(), frame);
  EXPECT_TRUE(capture_.Contains("Header of DpMsg: reserved: 0, fragment: 1, type: 2, len: 14"));
}

// A stream that lost its frames is left at once, and the link comes back.
TEST_F(DpLinkTest, BrokenStreamsAreLeftAndReopened) {
  test::UnixPeer agent(directory_.Path("link"));
  const std::string path = directory_.Path("link");
  Start();
  agent.Accept();
  struct Case {
    std::string bytes;
    std::string line;
  };
  for (const Case& c : {
           Case{"", "errorCode=\"OPS00205\"] DpLink " + path +
                        ": recv 0 byte header, the peer has performed an orderly shutdown"},
           Case{"abc", "recv 0 byte header, the peer has performed an orderly shutdown"},
           Case{Frame(0, 1, "x", 100), "recv 0 byte body, the peer has performed an orderly shutdown"},
           Case{Frame(0, 1, "", 5),
                "errorCode=\"OPS00205\"] DpLink " + path + ": recv error: wrong message size 5"},
           Case{Frame(0, 1, "", 0), "wrong message size 0"},
           Case{Frame(0, 1, "", (16 << 20) + 1), "wrong message size 16777217"},
           Case{Frame(0, 1, "", 0xffffffff), "wrong message size -1"},
           Case{Frame(0x81, 1, "x"), "recv error, invalid DpMsg header, fragment: 1, type: 1, size: 7"},
       }) {
    capture_.Clear();
    agent.Send(c.bytes);
    if (c.line.find("0 byte") != std::string::npos) agent.Close();
    agent.Accept();
    EXPECT_EQ(capture_.Count(c.line), 1u) << c.line;
    agent.Send(Frame(0, 1, "works"));
    EXPECT_EQ(Received(), Frame(0, 1, "works"));
    agent.Close();
    agent.Accept();
  }
}

TEST_F(DpLinkTest, ReopensWithinFiveSeconds) {
  Start();
  EXPECT_TRUE(capture_.Contains("errorCode=\"OPS00202\"] Could not connect to AF_UNIX socket (\"" +
                                directory_.Path("link") + "\"): No such file or directory"));
  test::UnixPeer agent(directory_.Path("link"));
  clock_.RunFor(seconds(5));
  EXPECT_TRUE(capture_.Contains("Connected to AF_UNIX socket " + directory_.Path("link")));
}

// What was queued while the agent was away must not be lost, least of all the first.
TEST_F(DpLinkTest, FramesWaitForTheLink) {
  Start();
  for (const char* body : {"one", "two", "three"}) EXPECT_TRUE(link_->Send(Allocated(Frame(0, 1, body))));
  auto agent = std::make_optional<test::UnixPeer>(directory_.Path("link"));
  agent->Accept();
  const std::string expected = Frame(0, 1, "one") + Frame(0, 1, "two") + Frame(0, 1, "three");
  EXPECT_EQ(agent->Receive(expected.size()), expected);

  // The send loop now waits for a frame on a link that goes down before it gets one.
  agent.reset();
  ASSERT_EQ(::unlink(directory_.Path("link").c_str()), 0);
  while (!capture_.Contains("recv 0 byte header")) clock_.RunFor(seconds(1));
  // The line comes before the link is taken down, and a frame that is sent in between is lost with the link.
  clock_.Settle();
  EXPECT_TRUE(link_->Send(Allocated(Frame(0, 1, "four"))));
  clock_.RunFor(seconds(20));
  agent.emplace(directory_.Path("link"));
  agent->Accept();
  EXPECT_EQ(agent->Receive(Frame(0, 1, "four").size()), Frame(0, 1, "four"));
}

TEST_F(DpLinkTest, StopWakesABlockedSender) {
  Start();
  for (int i = 0; i < 1024; ++i) ASSERT_TRUE(link_->Send(Allocated(Frame(0, 1, ""))));
  std::optional<bool> queued;
  NativeThread sender([&] { queued = link_->Send(Allocated(Frame(0, 1, ""))); });
  clock_.RunFor(seconds(60));
  EXPECT_FALSE(queued.has_value());
  link_->Stop();
  sender.Join();
  EXPECT_EQ(queued, false);
  EXPECT_TRUE(capture_.Contains("errorCode=\"OPS00002\"] Msg Queue is full!"));
  EXPECT_TRUE(capture_.Contains("errorCode=\"OPS00002\"] DpLink: failed to put a message into queue"));
  EXPECT_FALSE(link_->Send(nullptr));
}

// An agent that does not read holds the send loop; the stop must end it all the same.
TEST_F(DpLinkTest, StopEndsASendUnderWay) {
  test::UnixPeer agent(directory_.Path("link"));
  Start();
  agent.Accept();
  EXPECT_TRUE(link_->Send(Allocated(Frame(0, 1, std::string(8 << 20, 'x')))));
  EXPECT_EQ(agent.Receive(10).size(), 10u);
  link_->Stop();
  group_->Stop();
  EXPECT_TRUE(capture_.Contains("DpLink link down"));
}

TEST_F(DpLinkTest, UnhealthyLinkIsReplaced) {
  std::atomic<int> asked{0};
  test::UnixPeer agent(directory_.Path("link"));
  Start([&](int socket) {
    EXPECT_GE(socket, 0);
    return ++asked != 2;
  });
  agent.Accept();
  agent.Accept();
  EXPECT_GE(asked, 2);
  link_->ScheduleReopen();
  EXPECT_TRUE(capture_.Contains("DpLink reopen scheduled"));
}

}  // namespace
}  // namespace zem::Tarvik
