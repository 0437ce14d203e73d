#include "framework/dataplane/lcp_adapter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/dataplane/lcp_frame.h"
#include "platform/core/virtual_clock.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/bounded_queue.h"
#include "platform/provider/provider.h"
#include "platform/provider/work_group.h"
#include "proto/lcp/lcp.pb.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/unix_peer.h"

namespace zem::Tarvik {
namespace {

using orlane::zem::lcp::LcpDpMsg;

constexpr const char* kTraceflow = "orlane.zem.traceflow.TraceflowMsg";
constexpr const char* kLivetrace = "orlane.zem.livetrace.LivetraceMsg";

std::string Frame(uint8_t type, const std::string& body) {
  std::string frame(kLcpHeaderSize, '\0');
  WriteLcpHeader(type, static_cast<uint32_t>(kLcpHeaderSize + body.size()),
                 reinterpret_cast<uint8_t*>(frame.data()));
  return frame + body;
}

class LcpAdapterTest : public ::testing::Test {
 protected:
  LcpAdapterTest() : group_(new WorkGroup("tarvik", registry_, WorkGroup::kUnbounded)) {
    group_->Start(2);
    provider_.RunAsync(1);
  }
  ~LcpAdapterTest() override {
    if (adapter_ != nullptr) adapter_->Stop();
    adapter_ = nullptr;
    group_->Stop();
    provider_.StopAndWait(false);
  }

  void Start(const std::string& path) {
    adapter_ = new LcpAdapter(group_, path);
    adapter_->Start(provider_);
  }

  void Record(const char* type_name) {
    adapter_->RegisterHandler(type_name, [this](const google::protobuf::Message& message) {
      EXPECT_TRUE(handled_.Push(message.GetTypeName()));
    });
  }

  VirtualClock clock_;
  test::LogCapture capture_{kLogDebug};
  test::TempDir directory_;
  metrics::Registry registry_;
  AsioZemProvider provider_;
  boost::intrusive_ptr<WorkGroup> group_;
  BoundedQueue<std::string> handled_{"handled", 100};
  boost::intrusive_ptr<LcpAdapter> adapter_;
};

TEST_F(LcpAdapterTest, MessagesReachTheHandlerOfTheirType) {
  test::UnixPeer agent(directory_.Path("link"));
  Start(directory_.Path("link"));
  agent.Accept();
  Record(kLivetrace);

  LcpDpMsg both;
  both.set_version(1);
  both.mutable_livetrace();
  both.mutable_traceflow();
  // None of these reaches a handler: another type, no message, not a message, no handler for what it holds.
  LcpDpMsg unhandled;
  unhandled.mutable_traceflow();
  agent.Send(Frame(2, both.SerializeAsString()) + Frame(1, "") + Frame(1, "\xff\xff\xff") +
             Frame(1, unhandled.SerializeAsString()) + Frame(1, both.SerializeAsString()));
  EXPECT_EQ(handled_.Pop(), kLivetrace);
  EXPECT_EQ(handled_.size(), 0u);

  Record(kTraceflow);
  agent.Send(Frame(1, both.SerializeAsString()));
  EXPECT_EQ(handled_.Pop(), kTraceflow);
  EXPECT_EQ(handled_.Pop(), kLivetrace);
}

TEST_F(LcpAdapterTest, SendsFramesOfTheGivenType) {
  test::UnixPeer agent(directory_.Path("link"));
  Start(directory_.Path("link"));
  agent.Accept();
  LcpDpMsg message;
  message.set_version(1);
  message.mutable_traceflow()->mutable_packet_out_request()->set_packet("p");
  ASSERT_TRUE(adapter_->Send(1, message));
  const std::string expected = Frame(1, message.SerializeAsString());
  EXPECT_EQ(agent.Receive(expected.size()), expected);
  EXPECT_TRUE(capture_.Contains("Send msg to zem-agent, msg is version: 1"));

  message.mutable_traceflow()->mutable_packet_out_request()->set_packet(std::string(17 << 20, 'p'));
  EXPECT_FALSE(adapter_->Send(1, message));
  adapter_->Stop();
  EXPECT_FALSE(adapter_->Send(1, LcpDpMsg()));
}

// While the agent is away its frames gather; who may not wait is refused when no more are taken.
TEST_F(LcpAdapterTest, AFullQueueRefusesWhoMayNotWait) {
  Start(directory_.Path("link"));
  LcpDpMsg message;
  message.set_version(1);
  for (int i = 0; i < 1024; ++i) ASSERT_TRUE(adapter_->TrySend(1, message)) << i;
  EXPECT_FALSE(adapter_->TrySend(1, message));
  EXPECT_TRUE(capture_.Contains("Msg Queue is full!"));
}

TEST_F(LcpAdapterTest, LongPathIsCut) {
  std::string path = directory_.Path("");
  path.append(200 - path.size(), 'l');
  const std::string cut = path.substr(0, 107);
  test::UnixPeer agent(cut);
  Start(path);
  agent.Accept();
  EXPECT_TRUE(capture_.Contains("LcpAdapter: Zem-Agent socket path too long, truncated to [" + cut + "]"));
}

}  // namespace
}  // namespace zem::Tarvik
