#include "app/zema/manager/zem_manager.h"

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <vector>

#include "app/zema/state/realization_options.h"
#include "framework/node/host_identity.h"
#include "platform/core/thread.h"
#include "platform/core/virtual_clock.h"
#include "tests/support/log_capture.h"

namespace zem::zema {
namespace {

using namespace std::chrono_literals;

// A handler thread that makes one call while it holds its own monitor, as they do.
class Handler final : public Thread {
 public:
  explicit Handler(std::function<void(Handler*)> call) : Thread(true, nullptr, 0), call_(std::move(call)) {}
  ~Handler() override = default;
  void Run() override {
    Lock();
    call_(this);
    Unlock();
  }

 private:
  std::function<void(Handler*)> call_;
};

// The manager's end of the road.
class Road final : public VifSender {
 public:
  bool SendVIFAttachmentInfo(const Attachment& attachment, std::string* message_id) override {
    {
      std::lock_guard lock(mutex);
      sent.push_back(attachment);
    }
    if (takes > Duration::zero()) SleepFor(takes);
    *message_id = "m-1";
    if (on_send) on_send(attachment.rpc_id);
    return works;
  }
  bool SendVIFUpdate(const Update& update) override {
    updates.push_back(update);
    return works;
  }
  bool SendVIFRestoreResponse(const RestoreResponse&) override { return works; }

  bool works = true;
  Duration takes{};
  std::function<void(const std::string&)> on_send;
  std::mutex mutex;  // guards sent
  std::vector<Attachment> sent;
  std::vector<Update> updates;
};

class ZemManagerTest : public ::testing::Test {
 protected:
  ZemManagerTest() { host.SetHostId("host-1"); }

  std::unique_ptr<PortAttached> Answer(const std::string& port, const std::string& error = "") {
    auto answer = std::make_unique<PortAttached>();
    answer->port_id = port;
    answer->error = error;
    return answer;
  }

  PortAttached Attach(const std::string& op_id = "op", bool wait = true,
                      const std::string& switch_id = "ls") {
    PortAttached out;
    Handler handler([&](Handler* self) {
      manager.MP_AddVnicAttachment(op_id, "vif", switch_id, "hint", "/vm.x", self, wait, &out);
    });
    handler.Start();
    handler.Join();
    return out;
  }

  PortAttached Detach() {
    PortAttached out;
    Handler handler([&](Handler* self) {
      manager.MP_RemoveVnicAttachment("op", "vif", "ls", "port", "/vm.x", self, true, &out);
    });
    handler.Start();
    handler.Join();
    return out;
  }

  // From a thread of its own, as the receive thread is.
  void AnswerAfter(Duration delay, const std::string& rpc_id, std::unique_ptr<PortAttached> answer) {
    answers.emplace_back(
        [this, delay, rpc_id, held = std::make_shared<std::unique_ptr<PortAttached>>(std::move(answer))] {
          SleepFor(delay);
          manager.SetResultToPendingRPC(rpc_id, std::move(*held));
        });
  }

  test::LogCapture log;
  VirtualClock clock;
  Road road;
  HostIdentity host;
  OptionsStore options;
  ZemManager manager{road, host, options};
  std::vector<NativeThread> answers;
};

TEST_F(ZemManagerTest, AnswerEndsTheWait) {
  road.on_send = [this](const std::string& rpc_id) { AnswerAfter(7s, rpc_id, Answer("lp-1")); };
  const TimePoint begin = clock.Now();
  const PortAttached out = Attach();
  EXPECT_EQ(out.port_id, "lp-1");
  EXPECT_EQ(out.error, "");
  EXPECT_EQ(clock.Now() - begin, 7s);
  EXPECT_EQ(manager.pending(), 0u);
  EXPECT_EQ(road.sent[0].host_id, "host-1");
  EXPECT_TRUE(road.sent[0].attach);
}

// An answer may come while its caller is still busy with sending: it is not lost, and whoever brings it does
// not wait for the caller.  The first one counts.
TEST_F(ZemManagerTest, AnswerDuringTheSendWaitsForNobody) {
  road.on_send = [this](const std::string& rpc_id) {
    manager.SetResultToPendingRPC(rpc_id, Answer("lp-1"));
    manager.SetResultToPendingRPC(rpc_id, Answer("lp-2"));
    SleepFor(5s);
  };
  const TimePoint begin = clock.Now();
  EXPECT_EQ(Attach().port_id, "lp-1");
  EXPECT_EQ(clock.Now() - begin, 5s);
  EXPECT_EQ(log.Count("has its answer already"), 1u);
}

TEST_F(ZemManagerTest, EndOfTheWaitsEndsThemAtOnce) {
  road.on_send = [this](const std::string&) {
    answers.emplace_back([this] {
      SleepFor(3s);
      manager.EndWaits();
    });
  };
  const TimePoint begin = clock.Now();
  EXPECT_EQ(Attach().error, ZemManager::kTimedOut);
  EXPECT_EQ(clock.Now() - begin, 3s);
  road.on_send = nullptr;
  EXPECT_EQ(Attach().error, ZemManager::kTimedOut);
  EXPECT_EQ(clock.Now() - begin, 3s) << "and those to come";
}

TEST_F(ZemManagerTest, LateAnswerIsDropped) {
  std::string rpc_id;
  road.on_send = [&](const std::string& id) { rpc_id = id; };
  const TimePoint begin = clock.Now();
  EXPECT_EQ(Attach().error, ZemManager::kTimedOut);
  EXPECT_EQ(clock.Now() - begin, 25s);
  EXPECT_EQ(manager.pending(), 0u);
  manager.SetResultToPendingRPC(rpc_id, Answer("lp-1"));
  EXPECT_TRUE(log.Contains("[SetResultToPendingRPC] pending RPC for [" + rpc_id + "] not found"));
}

// A send that fails, and one that succeeds after the time is over, are the same to the caller.
TEST_F(ZemManagerTest, SendFailures) {
  road.works = false;
  EXPECT_EQ(Attach().error, ZemManager::kSendFailed);
  EXPECT_EQ(Detach().error, "Failed to send VIF RPC request");
  road.works = true;
  road.takes = 26s;
  EXPECT_EQ(Attach().error, ZemManager::kSendFailed);
  EXPECT_EQ(manager.pending(), 0u);
  road.takes = 25s;  // nothing left to wait
  EXPECT_EQ(Detach().error, "RPC call to ZEM management plane timout");
  road.works = false;
  EXPECT_EQ(manager.MP_UpdateVnicAttachment("op", "vif", "ls", "port", {}).error(),
            "Failed to send VIF RPC request");
}

TEST_F(ZemManagerTest, HostThatIsNotSetUp) {
  host.UnsetHostId();
  EXPECT_EQ(Attach().error, "this host is not setup for zem operation");
  EXPECT_EQ(Detach().error, "this host is not initialized for zem operation");
  EXPECT_EQ(manager.MP_UpdateVnicAttachment("op", "vif", "ls", "port", {}).error(),
            "this host is not setup for zem operation");
  EXPECT_TRUE(road.sent.empty() && road.updates.empty());
}

// Which port the manager is told, by where the VIF goes and who asks.
TEST_F(ZemManagerTest, PortHints) {
  Attach("op", false);
  Attach("op", false, "dvportgroup-7");
  Attach("sync-attach-3", false);
  EXPECT_EQ(road.sent[0].port_id, "");
  EXPECT_EQ(road.sent[1].port_id, "hint");
  EXPECT_EQ(road.sent[2].port_id, "hint");
  EXPECT_EQ(manager.pending(), 0u) << "nobody waits";
  // Ids never repeat, and carry the operation's.
  EXPECT_EQ(road.sent[0].rpc_id.rfind("op-", 0), 0u);
  EXPECT_NE(road.sent[0].rpc_id, road.sent[1].rpc_id);
}

// Two calls at once get each its own answer, in whatever order they come.
TEST_F(ZemManagerTest, AnswersFindTheirCallers) {
  std::vector<std::string> ids;
  std::mutex mutex;
  road.on_send = [&](const std::string& rpc_id) {
    std::lock_guard lock(mutex);
    ids.push_back(rpc_id);
    AnswerAfter(ids.size() == 1 ? 9s : 3s, rpc_id, Answer("for " + rpc_id));
  };
  std::vector<PortAttached> outs(2);
  std::vector<std::unique_ptr<Handler>> handlers;
  for (PortAttached& out : outs) {
    handlers.push_back(std::make_unique<Handler>([this, &out](Handler* self) {
      manager.MP_AddVnicAttachment("op", "vif", "ls", "", "", self, true, &out);
    }));
    handlers.back()->Start();
  }
  for (const auto& handler : handlers) handler->Join();
  EXPECT_NE(outs[0].port_id, outs[1].port_id);
  for (const PortAttached& out : outs) EXPECT_EQ(out.port_id.rfind("for op-", 0), 0u);
}

}  // namespace
}  // namespace zem::zema
