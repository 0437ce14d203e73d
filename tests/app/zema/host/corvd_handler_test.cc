#include "app/zema/host/corvd_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <optional>

#include "app/zema/host/corvd_frame.h"
#include "app/zema/host/host_management_slot.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/state/health_record.h"
#include "app/zema/vifqueue/resync_state.h"
#include "framework/node/host_identity.h"
#include "platform/core/clock.h"
#include "platform/core/thread.h"
#include "sim/host/host_management.h"
#include "tests/app/zema/proxy/fake_lum_commands.h"
#include "tests/app/zema/state/no_publisher.h"
#include "tests/app/zema/state/test_options.h"
#include "tests/app/zema/vifqueue/recording_vif_handler.h"
#include "tests/support/temp_dir.h"

namespace zem::zema {
namespace {

using Operation = sim::HostManagement::Operation;
using std::chrono::milliseconds;
using std::chrono::seconds;

class CorvdHandlerTest : public ::testing::Test {
 protected:
  void Start(CorvdHandler::Times times = {}) {
    auto operations = std::make_unique<RecordingVifHandler>();
    operations_ = operations.get();
    handler_ = std::make_unique<CorvdHandler>(health_, std::move(operations), socket_, times);
    handler_->Start();
  }
  void Connect(CorvdHandler::Times times = {}) {
    daemon_.emplace(socket_);
    Start(times);
    ASSERT_TRUE(handler_->WaitForCorvdConnection(30));
    WaitForConnections(1);
  }
  void WaitForConnections(uint64_t count) {
    for (int i = 0; i < 3000 && (daemon_->state().connections < count || !daemon_->state().connected); ++i) {
      SleepFor(milliseconds(10));
    }
    ASSERT_EQ(daemon_->state().connections, count);
  }
  std::string Answers() {
    std::string all;
    for (const auto& answer : daemon_->answers()) {
      all += answer.op_id + "=" + std::to_string(answer.status) + ":" + answer.text + ";";
    }
    return all;
  }

  NoPublisher publisher_;
  HealthRecord health_{publisher_, false};
  test::TempDir directory_;
  const std::string socket_ = directory_.Path() + "/corvd";
  std::optional<sim::HostManagement> daemon_;
  RecordingVifHandler* operations_ = nullptr;
  std::unique_ptr<CorvdHandler> handler_;
};

TEST_F(CorvdHandlerTest, AWaiterIsWokenWhenTheDaemonOpensItsSocket) {
  Start();
  EXPECT_FALSE(handler_->WaitForCorvdConnection(1));
  NativeThread other([this] { EXPECT_TRUE(handler_->WaitForCorvdConnection(30)); });
  daemon_.emplace(socket_);
  EXPECT_TRUE(handler_->WaitForCorvdConnection(30));
  other.Join();
  // Connected is not yet taken.
  WaitForConnections(1);
  daemon_->Stop();
  daemon_->Start();
  WaitForConnections(2);
}

TEST_F(CorvdHandlerTest, TheEndOfTheHandlerEndsTheWait) {
  HostManagementSlot slot;
  Start();
  slot.Set(handler_.get());
  NativeThread waiter([&] { slot.WaitForConnection(600); });
  SleepFor(milliseconds(50));
  slot.Set(nullptr);
  waiter.Join();
  handler_.reset();
  slot.WaitForConnection(600);  // nobody to wait for
}

// The comparison lives with the handler, and an operation of it that waits for the manager does not hold up
// the end.
TEST_F(CorvdHandlerTest, TheResyncBeginsAndEndsWithTheHandlerUnlessLoadIsSimulated) {
  HostIdentity host;
  host.SetHostId("node");
  ResyncState state;
  FakeLumCommands lum;
  SwitchLibrary library;
  PortOpsManager ports(library, lum, host);
  health_.mpaConnected();
  for (const bool simulated : {false, true}) {
    std::atomic<int> rounds = 0;
    TestOptions options;
    if (simulated) options.Set(R"({"scaleSimulation": {"state": "enabled"}})");
    auto operations = std::make_unique<RecordingVifHandler>();
    RecordingVifHandler& served = *operations;
    handler_ = std::make_unique<CorvdHandler>(health_, std::move(operations), socket_);
    ResyncThread::Settings settings{&health_, &host, &state, &options.store, &ports.holders()};
    settings.command = [&](const std::string& command, std::string* output) {
      if (command.rfind("python ", 0) == 0) {
        ++rounds;
        *output = "detach|hold|p|l|/vm/a,attach|never|l|/vm/a";
      }
      return 0;
    };
    handler_->ServeResync(std::move(settings));
    handler_->Start();
    if (!simulated) {
      ASSERT_TRUE(served.WaitUntilServed(1));
      handler_->Stop();
      handler_->Join();
      EXPECT_EQ(served.served().size(), 1u);
    }
    handler_.reset();
    EXPECT_EQ(rounds, simulated ? 0 : 1);
  }
}

TEST_F(CorvdHandlerTest, EachFrameIsAnsweredByItsRules) {
  Connect();
  struct Case {
    Operation operation;
    const char* answer;
  };
  const Case cases[] = {
      {{1, "attach-1", "vif-1", "ls", "/vm/a.gcf"}, "attach-1=0:vif-1;"},
      {{8, "attach-8", "fail", "ls", ""}, "attach-8=1:refused;"},
      {{2, "thrown", "throw", "ls", ""}, "thrown=1:the switch is gone;"},
      {{1, "bare", "", "", "", 0x35AE, 1, false}, "bare=1:missing payload in a vif request;"},
      {{13, "odd", "vif", "ls", ""}, "odd=0:;"},
      {{11, "no restore", "vif", "ls", ""}, "no restore=0:;"},
      {{0, "zero", "", "", "", 0x35AE, 1, false}, "zero=0:;"},
      {{14, "beyond", "vif", "ls", ""}, "beyond=2:;"},
      {{1, "version", "vif", "ls", "", 0x35AE, 2}, "version=3:;"},
  };
  std::string expected;
  size_t count = 0;
  for (const Case& c : cases) {
    ASSERT_TRUE(daemon_->Ask(c.operation));
    ASSERT_TRUE(daemon_->WaitForAnswers(++count, 30)) << c.operation.op_id;
    expected += c.answer;
    EXPECT_EQ(Answers(), expected);
  }
  // The frame after one with a wrong magic is read as ever.
  ASSERT_TRUE(daemon_->Ask({1, "magic", "vif", "ls", "", 0x35AF}));
  ASSERT_TRUE(daemon_->Ask({1, "after", "vif", "ls", ""}));
  ASSERT_TRUE(daemon_->WaitForAnswers(++count, 30));
  EXPECT_EQ(Answers(), expected + "after=0:vif;");
  EXPECT_EQ(daemon_->outstanding(), std::vector<std::string>{"magic"});
  EXPECT_THAT(daemon_->violations(), ::testing::IsEmpty());

  const std::vector<VifRequest> served = operations_->served();
  ASSERT_EQ(served.size(), 7u);
  EXPECT_EQ(served[0].ToString(),
            "opId:[ attach-1 ] op:[ CORVD_ATTACH_PORT( 1 )] vif:[vif-1] ls:[ls] gcf:[/vm/a.gcf] lp:[]");
  EXPECT_EQ(served[1].gcf_path, "knlnic");
  for (const size_t unsupported : {3, 4, 5}) EXPECT_EQ(served[unsupported].op_code, VifRequest::kUnsupported);
}

TEST_F(CorvdHandlerTest, PiecesMakeAFrameAndABurstIsAnsweredThoughNobodyReads) {
  Connect();
  for (const size_t piece : {1, 3, 283, 285}) {
    ASSERT_TRUE(daemon_->Ask({1, "piece-" + std::to_string(piece), "vif", "ls", ""}, piece));
  }
  ASSERT_TRUE(daemon_->WaitForAnswers(4, 30));
  daemon_->SetReading(false);
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(daemon_->Ask({1, "burst-" + std::to_string(i), "vif", "ls", ""}));
  }
  daemon_->SetReading(true);
  EXPECT_TRUE(daemon_->WaitForAnswers(204, 30));
  EXPECT_THAT(daemon_->outstanding(), ::testing::IsEmpty());
  EXPECT_THAT(daemon_->violations(), ::testing::IsEmpty());
  EXPECT_EQ(daemon_->state().connections, 1u);
}

TEST_F(CorvdHandlerTest, ALateAnswerDoesNotReachTheNextConnection) {
  Connect();
  ASSERT_TRUE(daemon_->Ask({1, "old", "hold", "ls", ""}));
  ASSERT_TRUE(operations_->WaitUntilServed(1));
  daemon_->Drop();
  WaitForConnections(2);
  operations_->Release();
  ASSERT_TRUE(daemon_->Ask({1, "new", "vif", "ls", ""}));
  ASSERT_TRUE(daemon_->WaitForAnswers(1, 30));
  EXPECT_EQ(Answers(), "new=0:vif;");
  EXPECT_THAT(daemon_->violations(), ::testing::IsEmpty());
}

TEST_F(CorvdHandlerTest, ADamagedOrUnfinishedFrameEndsTheConnection) {
  CorvdHandler::Times times;
  times.retry = milliseconds(10);
  times.frame = milliseconds(200);
  Connect(times);
  ASSERT_TRUE(daemon_->SendRaw("half a header"));
  WaitForConnections(2);
  std::string header(CorvdHeader::kSize, '\0');
  const uint32_t size = kLongestCorvdPayload + 1;
  std::memcpy(header.data() + 280, &size, sizeof(size));
  ASSERT_TRUE(daemon_->SendRaw(header));
  WaitForConnections(3);
  ASSERT_TRUE(daemon_->Ask({1, "whole", "vif", "ls", ""}));
  EXPECT_TRUE(daemon_->WaitForAnswers(1, 30));
}

TEST_F(CorvdHandlerTest, TheStopDoesNotWaitForTheDaemon) {
  Connect();
  ASSERT_TRUE(daemon_->Ask({1, "held", "hold", "ls", ""}));
  ASSERT_TRUE(operations_->WaitUntilServed(1));
  ASSERT_TRUE(daemon_->SendRaw("half a header"));
  const TimePoint begun = Clock::Process().Now();
  handler_->Stop();
  handler_->Join();
  EXPECT_LT(Clock::Process().Now() - begun, seconds(50)) << "a frame has a minute";
  EXPECT_FALSE(handler_->WaitForCorvdConnection(600));
  handler_->AddRequest(std::make_shared<VifRequest>());
}

TEST(CorvdFrameTest, ThePayloadsFieldsAreBoundedByTheirPlaces) {
  std::string payload(1010, 'x');
  const uint32_t markers[] = {1, 160};
  std::memcpy(payload.data() + 970, markers, sizeof(markers));
  const uint64_t ids[] = {1, 2, 3, 4};
  std::memcpy(payload.data() + 978, ids, sizeof(ids));
  VifRequest full;
  UnpackVifPayload(payload, &full);
  EXPECT_EQ(full.vif_id.size(), 458u);
  EXPECT_EQ(full.ls_id.size(), 256u);
  EXPECT_EQ(full.gcf_path.size(), 256u);
  EXPECT_EQ(full.trace.trace_id, 2u);
  EXPECT_EQ(full.trace.span_id, 4u);

  for (const size_t size : {977, 978, 1009}) {
    VifRequest cut;
    UnpackVifPayload(std::string_view(payload).substr(0, size), &cut);
    EXPECT_FALSE(cut.trace.valid()) << size;
    EXPECT_EQ(cut.gcf_path.size(), 256u);
  }
  payload[974] = 0;
  VifRequest unmarked;
  UnpackVifPayload(payload, &unmarked);
  EXPECT_FALSE(unmarked.trace.valid());

  VifRequest small;
  UnpackVifPayload("vif", &small);
  EXPECT_EQ(small.vif_id, "vif");
  EXPECT_EQ(small.ls_id, "");
  EXPECT_EQ(small.gcf_path, "knlnic");
}

}  // namespace
}  // namespace zem::zema
