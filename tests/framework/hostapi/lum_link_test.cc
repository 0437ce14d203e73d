#include "framework/hostapi/lum_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/intrusive_ptr.hpp>
#include <functional>
#include <vector>

#include "platform/core/thread.h"
#include "platform/core/virtual_clock.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/unix_peer.h"

namespace zem::Tarvik {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;

class LumLinkTest : public ::testing::Test {
 protected:
  LumLinkTest()
      : path_(directory_.Path("lum")),
        peer_(path_),
        link_(new LumLink(path_, [this](LumLink*, int status) { statuses_.push_back(status); })) {
    link_->SetErrorCallback([this](LumLink* link) {
      ++errors_;
      failures_ += link->TakeFailure() ? 1 : 0;
    });
  }

  void Open() {
    ASSERT_TRUE(link_->OpenLumSocket());
    peer_.Accept();
  }

  // Runs an operation on a thread of its own while the test drives the peer and the clock.
  bool Run(const std::function<bool()>& operation, const std::function<void()>& meanwhile) {
    bool result = false;
    NativeThread thread([&] { result = operation(); });
    meanwhile();
    thread.Join();
    return result;
  }

  bool Wait() { return link_->WaitResponse(3); }

  VirtualClock clock_;
  test::LogCapture log_;
  test::TempDir directory_;
  const std::string path_;
  test::UnixPeer peer_;
  const boost::intrusive_ptr<LumLink> link_;
  std::vector<int> statuses_;
  int errors_ = 0;
  int failures_ = 0;
};

TEST_F(LumLinkTest, AnExchangeAndItsEnd) {
  EXPECT_EQ(link_->GetStatus(), LumLink::kDown);
  EXPECT_FALSE(Wait());
  EXPECT_TRUE(log_.Contains("Connection of " + path_ + " is already down"));
  Open();
  EXPECT_TRUE(link_->OpenLumSocket()) << "an open link is not opened again";
  ASSERT_TRUE(link_->Send("question", 8));
  EXPECT_EQ(peer_.Receive(8), "question");
  peer_.Send("answer");
  ASSERT_TRUE(Wait());
  char buffer[8] = {};
  int received = 0;
  ASSERT_TRUE(link_->Recv(buffer, 6, &received));
  EXPECT_EQ(std::string(buffer, static_cast<size_t>(received)), "answer");
  link_->CloseLumSocket();
  link_->CloseLumSocket();
  EXPECT_THAT(statuses_, ElementsAre(LumLink::kUp, LumLink::kDown));
  EXPECT_FALSE(link_->Recv(buffer, 1));
  EXPECT_EQ(errors_, 0) << "a link that is down has nothing to report";
}

// Each way in which an operation fails takes the link down and is told once; what follows fails at once.
TEST_F(LumLinkTest, EachFailureIsToldOnce) {
  struct Case {
    const char* what;
    std::function<bool()> operation;
    std::function<void()> meanwhile;
    const char* line;
  };
  char buffer[8];
  const std::vector<Case> cases = {
      {"silence", [&] { return Wait(); }, [&] { clock_.RunFor(seconds(4)); }, "WaitResponse timeout"},
      {"a stall", [&] { return link_->Recv(buffer, 8); },
       [&] {
         peer_.Send("half");
         clock_.RunFor(seconds(4));
       },
       "Recv data failed"},
      {"an end", [&] { return link_->Recv(buffer, 8); },
       [&] {
         peer_.Send("half");
         peer_.Close();
       },
       "Recv data failed"},
      {"nobody to send to", [&] { return link_->Send("x", 1); }, [] {}, "Send data failed"},
      {"bytes of an earlier answer", [&] { return link_->Send("x", 1); }, [] {}, "Send data failed"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.what);
    Open();
    if (each.what == std::string("nobody to send to")) peer_.Close();
    if (each.what == std::string("bytes of an earlier answer")) peer_.Send("left");
    log_.Clear();
    errors_ = failures_ = 0;
    EXPECT_FALSE(Run(each.operation, each.meanwhile));
    EXPECT_TRUE(log_.Contains(path_ + ": " + each.line));
    EXPECT_EQ(link_->GetStatus(), LumLink::kDown);
    EXPECT_FALSE(Wait());
    EXPECT_FALSE(link_->Send("x", 1));
    EXPECT_EQ(errors_, 1);
    EXPECT_EQ(failures_, 1);
    link_->CloseLumSocket();
    peer_.Close();
  }
}

// The owner closes the link while somebody waits on it: the wait ends, and is no failure of the next
// connection.
TEST_F(LumLinkTest, AWaitEndsWithTheConnection) {
  Open();
  ASSERT_TRUE(link_->Send("x", 1));
  EXPECT_FALSE(
      Run([this] { return Wait() && link_->Recv(&errors_, 1); }, [this] { link_->CloseLumSocket(); }));
  EXPECT_EQ(errors_, 0);
  Open();
  EXPECT_FALSE(link_->TakeFailure());
  EXPECT_EQ(link_->GetStatus(), LumLink::kUp);
}

// A question that went out on the connection before has no answer on this one: whatever comes is another's.
TEST_F(LumLinkTest, AnExchangeDoesNotSpanConnections) {
  Open();
  ASSERT_TRUE(link_->Send("x", 1));
  link_->CloseLumSocket();
  Open();
  peer_.Send("late");
  EXPECT_FALSE(Wait());
  EXPECT_EQ(link_->GetStatus(), LumLink::kUp);
  EXPECT_EQ(errors_, 0);
}

// A failure that is reported late must not take down the connection that came after it.
TEST_F(LumLinkTest, AFailureEndsWithItsConnection) {
  link_->SetErrorCallback([this](LumLink*) { ++errors_; });
  Open();
  peer_.Close();
  char byte = 0;
  EXPECT_FALSE(link_->Recv(&byte, 1));
  EXPECT_EQ(errors_, 1);
  link_->CloseLumSocket();
  Open();
  EXPECT_FALSE(link_->TakeFailure());
}

// A connection attempt takes up to a minute; the stop must not wait for it.
TEST_F(LumLinkTest, StopEndsAConnectionAttempt) {
  const boost::intrusive_ptr<LumLink> link(new LumLink(directory_.Path("nobody")));
  const TimePoint begin = clock_.Now();
  EXPECT_FALSE(Run([&] { return link->OpenLumSocket(); },
                   [&] {
                     clock_.RunFor(seconds(2));
                     EXPECT_FALSE(link->Send("x", 1)) << "and nobody else waits for it";
                     link->Stop();
                   }));
  EXPECT_EQ(clock_.Now() - begin, seconds(2));
}

}  // namespace
}  // namespace zem::Tarvik
