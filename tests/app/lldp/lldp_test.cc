// The manager's questions and the host's answers, through the whole channel; the test is the host.

#include <optional>

#include "app/lldp/lldp_qub.h"
#include "framework/hostapi/lum_client.h"
#include "platform/provider/work_group.h"
#include "tests/mpaclient/channel_fixture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/unix_peer.h"

namespace zem::Tarvik {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* kVertical = "LldpVertical";

std::string Reply(const std::string& data, std::optional<uint32_t> length = {}) {
  const uint32_t size = length.value_or(static_cast<uint32_t>(data.size()));
  std::string reply = "\xde\xad\xbe\xef";
  reply.append(reinterpret_cast<const char*>(&size), sizeof(size));
  return reply + data;
}

class LldpTest : public ChannelTest {
 protected:
  /// A script that is there already: nothing is started and nothing ended.
  class NoScript final : public LumClient {
   public:
    using LumClient::LumClient;
    bool TerminateLumPy() override { return true; }
    bool SpawnLumPy() override { return true; }
    bool GetZemLumPid() override { return true; }
  };

  LldpTest()
      : host_(directory_.Path("lum")),
        group_(new WorkGroup("lldp", provider.metrics(), WorkGroup::kUnbounded)) {
    group_->Start(4);
    client_ = new NoScript(provider, group_);
    qub_ = new LldpQub(provider, group_, client_, new LumLink(directory_.Path("lum")));
    qub_->Start();
    client_->Start();
    StartManager();
    proxy_client->Start();
    clock.RunFor(seconds(20));
    host_.Accept();
  }
  ~LldpTest() override {
    Stop();
    client_->Stop();
    group_->Stop();
  }
  void Stop() {
    if (qub_) qub_->Stop();
    qub_.reset();
  }

  void Ask(const std::string& payload) {
    sim::Manager::SendRequest request;
    request.vertical = kVertical;
    request.member = "RawPayloadMsg";
    request.text = "payload: \"" + payload + "\"";
    request.timeout = seconds(20);
    EXPECT_EQ(manager->Send(request,
                            [this](const sim::HostAnswer& answer) {
                              const std::lock_guard lock(mutex);
                              answers_.push_back(answer.status.ok() ? AnswerJson(kVertical, answer) : "none");
                            }),
              "");
  }

  // Time must not go on while the test waits for bytes, so they have to be there.
  std::string AtTheHost(size_t size) {
    clock.RunFor(milliseconds(10));
    return host_.Receive(size);
  }

  std::vector<std::string> Answers() {
    const std::lock_guard lock(mutex);
    return answers_;
  }

  test::TempDir directory_;
  test::UnixPeer host_;
  boost::intrusive_ptr<WorkGroup> group_;
  boost::intrusive_ptr<LumClient> client_;
  boost::intrusive_ptr<LldpQub> qub_;
  std::vector<std::string> answers_;  // guarded by mutex
};

// Bytes pass as they are, with zeros and line feeds; answers go out in the order of the questions.
TEST_F(LldpTest, QuestionsAreAnsweredInOrder) {
  Ask("\\n\\004e\\000\\n1");
  Ask("second");
  using namespace std::string_literals;
  EXPECT_EQ(AtTheHost(15), "rpcquery\n\n\004e\0\n1"s);
  host_.Send(Reply("\n\x08\n\x06vmnic0"s));
  EXPECT_EQ(AtTheHost(15), "rpcquery\nsecond");
  host_.Send(Reply("\n\x08\n\x06vmnic1"s));
  clock.RunFor(milliseconds(100));
  ASSERT_EQ(Answers().size(), 2U);
  EXPECT_THAT(Answers()[0], testing::HasSubstr("vmnic0"));
  EXPECT_THAT(Answers()[1], testing::HasSubstr("vmnic1"));
}

// A host that does not answer holds the thread of the questions, not the one that serves all verticals.
TEST_F(LldpTest, ASilentHostHoldsNobodyElse) {
  Ask("x");
  clock.RunFor(milliseconds(10));
  for (int i = 1; i < 70; ++i) Ask("x");
  clock.RunFor(seconds(2));
  EXPECT_EQ(log.Count("Received RPC request from MP"), 70U);
  EXPECT_EQ(log.Count("Failed to communicate With lldp Lum"), 5U) << "one is asked, 64 wait";
  clock.RunFor(milliseconds(1100));
  EXPECT_TRUE(log.Contains("No data received, timeout"));
  EXPECT_GE(log.Count("Connection of " + directory_.Path("lum") + " is already down"), 64U);
  EXPECT_EQ(log.Count("LinkErrorHandle for"), 1U);
  clock.RunFor(seconds(30));
  EXPECT_THAT(Answers(), testing::Each("none"));
}

// The sign of life that falls due meanwhile waits for its turn, and the question's time runs on.
TEST_F(LldpTest, ASilentHostDoesNotHoldTheSignOfLife) {
  clock.RunFor(seconds(9));
  Ask("x");
  clock.RunFor(seconds(5));
  EXPECT_TRUE(log.Contains("No data received, timeout"));
  EXPECT_TRUE(log.Contains("Failed to ping LldpLum"));
  EXPECT_EQ(log.Count("LinkErrorHandle for"), 1U);
}

TEST_F(LldpTest, LengthsAtTheLimits) {
  struct Case {
    std::string payload;
    std::string reply;
    const char* line;
    bool up;
  };
  const std::string most(LldpQub::kBufferSize - 9, 'q');
  const std::vector<Case> cases = {
      {most, Reply(std::string(LldpQub::kBufferSize, 'a')), nullptr, true},
      {most + "q", "", "Failed to send cmd", true},
      {"x", Reply(""), "Failed to communicate With lldp Lum", true},
      {"x", Reply("error: rpc command"), "Execute rpc cmd=rpcquery error", true},
      {"x", Reply("error: rpc comman"), nullptr, true},
      {"x", Reply(std::string(LldpQub::kBufferSize + 1, 'a')), "Failed to recv data", true},
      {"x", Reply("", 0x80000000U), "Failed to recv data", false},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.reply.size());
    log.Clear();
    const size_t before = Answers().size();
    Ask(each.payload);
    if (!each.reply.empty()) {
      EXPECT_EQ(AtTheHost(9 + each.payload.size()), "rpcquery\n" + each.payload);
      host_.Send(each.reply);
    }
    clock.RunFor(milliseconds(100));
    EXPECT_EQ(Answers().size() - before, each.line == nullptr ? 1U : 0U);
    EXPECT_TRUE(each.line == nullptr || log.Contains(each.line)) << each.line;
    EXPECT_EQ(log.Contains("LinkErrorHandle"), !each.up);
  }
}

// A sign of life is asked for every 30 seconds; a stop in the middle of the exchange does not wait for it.
TEST_F(LldpTest, PingsUntilTheStop) {
  clock.RunFor(seconds(11));
  EXPECT_EQ(AtTheHost(8), "rpcping\n");
  host_.Send(Reply("ok"));
  clock.RunFor(seconds(30));
  EXPECT_EQ(AtTheHost(8), "rpcping\n");
  EXPECT_FALSE(log.Contains("Failed to ping LldpLum"));
  const TimePoint begin = clock.Now();
  Stop();
  EXPECT_EQ(clock.Now(), begin);
  std::vector<LumClient::LinkStatus> links;
  client_->GetLinkStatus(&links);
  EXPECT_TRUE(links.empty());
}

}  // namespace
}  // namespace zem::Tarvik
