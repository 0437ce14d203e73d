// The sequences around a script that the test plays: what is a process and how it is ended, whole-process
// tests show.

#include "framework/hostapi/lum_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

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
using testing::ElementsAre;
using testing::Pair;

class PlayedScript final : public LumClient {
 public:
  using LumClient::LumClient;
  bool TerminateLumPy() override { return true; }
  bool SpawnLumPy() override {
    ++spawns;
    return !refuses;
  }
  bool GetZemLumPid() override {
    if (on_pid) on_pid();
    return true;
  }

  std::atomic<int> spawns{0};
  std::atomic<bool> refuses{false};
  std::function<void()> on_pid;
};

class LumClientTest : public ::testing::Test {
 protected:
  LumClientTest()
      : group_(new WorkGroup("framework", registry_, WorkGroup::kUnbounded)),
        client_(new PlayedScript(provider_, group_)) {
    group_->Start(3);
    provider_.RunAsync(1);
  }
  ~LumClientTest() override {
    client_->Stop();
    group_->Stop();
    provider_.StopAndWait(true);
  }

  boost::intrusive_ptr<LumLink> Link(const std::string& name) {
    const boost::intrusive_ptr<LumLink> link(new LumLink(directory_.Path(name)));
    client_->Register(link);
    return link;
  }

  static void Fail(LumLink& link) {
    char byte = 0;
    EXPECT_FALSE(link.Recv(&byte, 1));
  }

  VirtualClock clock_;
  test::LogCapture log_;
  test::TempDir directory_;
  metrics::Registry registry_;
  AsioZemProvider provider_;
  boost::intrusive_ptr<WorkGroup> group_;
  boost::intrusive_ptr<PlayedScript> client_;
};

// Two links fail, the second while the reset is on its way: one reset heals both.
TEST_F(LumClientTest, AFailureHasOneReset) {
  test::UnixPeer first_peer(directory_.Path("a"));
  test::UnixPeer second_peer(directory_.Path("b"));
  const auto second = Link("b");
  const auto first = Link("a");
  client_->Start();
  clock_.RunFor(seconds(1));
  EXPECT_EQ(client_->state(), LumClient::State::kRunning);
  first_peer.Accept();
  second_peer.Accept();
  first_peer.Close();
  second_peer.Close();
  second->SetErrorCallback(nullptr);
  Fail(*second);
  client_->Register(second);
  Fail(*first);
  EXPECT_EQ(client_->state(), LumClient::State::kHandlingError);
  Fail(*second);
  std::vector<LumClient::LinkStatus> statuses;
  client_->GetLinkStatus(&statuses);
  EXPECT_THAT(statuses, ElementsAre(Pair(directory_.Path("a"), LumLink::kDown),
                                    Pair(directory_.Path("b"), LumLink::kDown)));
  clock_.RunFor(seconds(10));
  EXPECT_EQ(client_->state(), LumClient::State::kRunning);
  EXPECT_EQ(first->GetStatus() + second->GetStatus(), 2 * LumLink::kUp);
  EXPECT_EQ(client_->spawns, 2);
  EXPECT_EQ(log_.Count("LumClient Reset..."), 1U);
}

TEST_F(LumClientTest, AReplacedLinkResetsNothing) {
  test::UnixPeer peer(directory_.Path("a"));
  const auto old = Link("a");
  client_->Start();
  clock_.RunFor(seconds(1));
  peer.Accept();
  const auto link = Link("a");
  peer.Close();
  Fail(*old);
  EXPECT_EQ(client_->state(), LumClient::State::kRunning);
  EXPECT_EQ(client_->spawns, 1);
}

// A link fails before the start is through: the start's end must not hide that.
TEST_F(LumClientTest, AFailureDuringTheStartIsHealed) {
  test::UnixPeer peer(directory_.Path("a"));
  const auto link = Link("a");
  client_->on_pid = [&] {
    peer.Accept();
    if (client_->spawns > 1) return;
    peer.Close();
    Fail(*link);
  };
  client_->Start();
  clock_.RunFor(seconds(10));
  EXPECT_EQ(client_->state(), LumClient::State::kRunning);
  EXPECT_EQ(link->GetStatus(), LumLink::kUp);
  EXPECT_EQ(client_->spawns, 2);
}

// The script is refused, then does not listen: the client goes on trying, answers at once meanwhile, and
// stops at once.
TEST_F(LumClientTest, AStartThatNeverSucceeds) {
  const auto link = Link("a");
  client_->refuses = true;
  client_->Start();
  clock_.RunFor(seconds(10));
  EXPECT_GE(client_->spawns, 8);
  client_->refuses = false;
  clock_.RunFor(seconds(75));
  EXPECT_EQ(client_->state(), LumClient::State::kStarting);
  EXPECT_GE(log_.Count("LumClient Stop..."), 1U) << "each failed start is cleaned up";
  const TimePoint begin = clock_.Now();
  std::vector<LumClient::LinkStatus> statuses;
  client_->GetLinkStatus(&statuses);
  EXPECT_THAT(statuses, ElementsAre(Pair(link->path(), LumLink::kDown)));
  EXPECT_FALSE(link->WaitResponse(3));
  EXPECT_EQ(clock_.Now(), begin);
  client_->Stop();
  EXPECT_LE(clock_.Now() - begin, seconds(2));
  EXPECT_EQ(client_->state(), LumClient::State::kStopped);
}

// Whatever is still on its way when the client stops must not start the script again.
TEST_F(LumClientTest, NothingStartsAfterTheStop) {
  test::UnixPeer peer(directory_.Path("a"));
  const auto link = Link("a");
  client_->Start();
  clock_.RunFor(seconds(1));
  peer.Accept();
  peer.Close();
  Fail(*link);
  client_->Stop();
  client_->Start();
  clock_.RunFor(seconds(30));
  EXPECT_EQ(client_->spawns, 1);
  EXPECT_EQ(client_->state(), LumClient::State::kStopped);
}

}  // namespace
}  // namespace zem::Tarvik
