#include "app/zema/vifqueue/handler_pool.h"

#include <gtest/gtest.h>

#include "app/zema/host/corvd_frame.h"
#include "app/zema/vif/precreated_ports.h"
#include "platform/core/virtual_clock.h"
#include "tests/app/zema/vifqueue/recording_vif_handler.h"

namespace zem::zema {
namespace {

using std::chrono::seconds;

std::shared_ptr<VifRequest> Request(const std::string& op_id, const std::string& vif) {
  auto request = std::make_shared<VifRequest>();
  request->op_id = op_id;
  request->vif_id = vif;
  request->op_code = VifRequest::kAttach;
  return request;
}

class HandlerPoolTest : public ::testing::Test {
 protected:
  VirtualClock clock_;
  RecordingVifHandler handler_;
  std::mutex mutex_;
  std::vector<std::string> replies_;
  HandlerPool pool_{handler_, [this](VifRequest& request) {
                      const std::lock_guard lock(mutex_);
                      replies_.push_back(request.op_id + "=" + request.error_text);
                    }};
};

TEST_F(HandlerPoolTest, ABurstMakesThirtyThreadsAndTheRestWaitsInTurn) {
  pool_.Start();
  // Not one of the threads need be ready while these come.
  for (int i = 0; i < 33; ++i) pool_.AddRequest(Request("op-" + std::to_string(i), "hold"));
  clock_.Settle();
  EXPECT_EQ(pool_.load().handlers, 30u);
  EXPECT_EQ(pool_.load().free, 0u);
  EXPECT_EQ(pool_.load().pending, 3u);
  EXPECT_EQ(handler_.held(), 30);
  handler_.Release();
  clock_.Settle();
  EXPECT_EQ(pool_.load().free, 30u);
  const std::vector<VifRequest> served = handler_.served();
  ASSERT_EQ(served.size(), 33u);
  // Those that wait for a thread have arrived all the same.
  const std::vector<VifRequest> arrived = handler_.arrived();
  for (size_t i = 0; i < 33; ++i) EXPECT_EQ(arrived.at(i).op_id, "op-" + std::to_string(i));
  for (size_t i = 30; i < 33; ++i) EXPECT_GE(std::stoi(served[i].op_id.substr(3)), 30);
}

// The host must hear at once that its request will not be carried out, and no VIF may wait behind it.
TEST_F(HandlerPoolTest, ARequestTooManyIsAnsweredAndForgotten) {
  for (size_t i = 0; i < HandlerPool::kMostHandlers; ++i) pool_.AddRequest(Request("op", "hold"));
  clock_.Settle();
  for (size_t i = 0; i < HandlerPool::kMostPending; ++i) pool_.AddRequest(Request("op", "vif"));
  ASSERT_EQ(pool_.load().pending, HandlerPool::kMostPending);
  auto owed = Request("owed", "vif");
  owed->request = std::make_shared<CorvdRequest>();
  pool_.AddRequest(owed);
  pool_.AddRequest(Request("of the manager", "vif"));
  EXPECT_EQ(replies_, std::vector<std::string>{"owed=Too many port operations wait. Please retry."});
  EXPECT_EQ(pool_.load().pending, HandlerPool::kMostPending + 1);
  EXPECT_EQ(handler_.arrived().size(), HandlerPool::kMostHandlers + HandlerPool::kMostPending + 1);
  EXPECT_EQ(handler_.arrived().back().op_id, "of the manager");
}

TEST_F(HandlerPoolTest, ThreadsGoAfterAnHourWithoutWorkOneAtATimeAndOneStays) {
  pool_.Start();
  for (int i = 0; i < 3; ++i) pool_.AddRequest(Request("op", "hold"));
  clock_.Settle();
  handler_.Release();
  clock_.Settle();
  const size_t most = pool_.load().handlers;
  ASSERT_GE(most, 3u);
  clock_.RunFor(seconds(3600));
  pool_.DeleteIdlingThread();
  EXPECT_EQ(pool_.load().handlers, most);  // not over the limit yet
  clock_.RunFor(seconds(1));
  pool_.AddRequest(Request("late", "vif"));
  clock_.Settle();
  for (size_t left = most - 1; left > 1; --left) {
    pool_.DeleteIdlingThread();
    EXPECT_EQ(pool_.load().handlers, left);
  }
  pool_.DeleteIdlingThread();  // the one that has just worked
  EXPECT_EQ(pool_.load().handlers, 1u);
  clock_.RunFor(seconds(4000));
  pool_.DeleteIdlingThread();
  EXPECT_EQ(pool_.load().handlers, 1u);
  pool_.AddRequest(Request("last", "vif"));
  clock_.Settle();
  EXPECT_EQ(handler_.served().back().op_id, "last");
}

TEST_F(HandlerPoolTest, EveryRequestOfTheHostIsAnsweredWhateverBecomesOfIt) {
  pool_.Start();
  for (const char* vif : {"vif", "fail", "throw"}) {
    auto request = Request(vif, vif);
    request->request = std::make_shared<CorvdRequest>();
    pool_.AddRequest(request);
    clock_.Settle();
  }
  auto failed = Request("known", "vif");
  failed->request = std::make_shared<CorvdRequest>();
  failed->error_text = "no payload";
  pool_.AddRequest(failed);
  pool_.AddRequest(Request("nobody asked", "vif"));
  clock_.Settle();
  EXPECT_EQ(replies_, (std::vector<std::string>{"vif=", "fail=refused", "throw=the switch is gone",
                                                "known=no payload"}));
  EXPECT_EQ(handler_.served().size(), 4u);  // the failed one is not tried
}

TEST_F(HandlerPoolTest, TheEndBreaksWaitsDropsWhatIsQueuedAndTakesNoMore) {
  pool_.Start();
  auto waiting = Request("waits", "hold");
  for (int i = 0; i < 30; ++i) pool_.AddRequest(Request("op", "hold"));
  pool_.AddRequest(waiting);
  clock_.Settle();
  pool_.Stop();
  EXPECT_EQ(handler_.held(), 0);
  pool_.AddRequest(waiting);
  EXPECT_EQ(waiting.use_count(), 1);
  EXPECT_EQ(handler_.served().size(), 30u);
  pool_.Stop();
}

TEST(PrecreatedPortsTest, AMatchIsTakenOnceAndTheRequestsOwnWordStands) {
  struct Case {
    const char* name;
    int32_t asked;
    const char* asked_switch;
    int32_t stored;
    const char* stored_switch;
    bool matches;
  };
  const Case cases[] = {
      {"attach of a port by VIF", 1, "ls-1", 8, "ls-1", true},
      {"the same kind", 8, "ls-1", 8, "ls-1", true},
      {"another switch", 1, "ls-2", 8, "ls-1", false},
      {"another kind needs the switch", 1, "", 8, "ls-1", false},
      {"the same kind does not", 8, "", 8, "ls-1", true},
      {"nor does the stored one", 1, "ls-1", 1, "", true},
      {"the same kind, another switch", 8, "ls-2", 8, "ls-1", false},
      {"detach of what waits for an attach", 2, "ls-1", 8, "ls-1", false},
      {"stored by the other attach", 8, "ls-1", 1, "ls-1", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto stored = Request("stored", "vif");
    stored->op_code = c.stored;
    stored->ls_id = c.stored_switch;
    stored->gcf_path = "/vm/old.gcf";
    stored->port_id = "port";
    stored->zone_id = "zone";
    stored->precreated = true;
    PrecreatedPorts ports;
    ports.Set(std::make_shared<PrecreatedPorts::Map>(PrecreatedPorts::Map{{"vif", stored}}));
    for (const bool again : {false, true}) {
      auto request = Request("asked", "vif");
      request->op_code = c.asked;
      request->ls_id = c.asked_switch;
      request->gcf_path = "/vm/new.gcf";
      ports.Merge(*request);
      const bool merged = c.matches && !again;
      EXPECT_EQ(request->precreated, merged);
      EXPECT_EQ(request->port_id, merged ? "port" : "");
      EXPECT_EQ(request->zone_id, merged ? "zone" : "");
      EXPECT_EQ(request->gcf_path, "/vm/new.gcf");
      EXPECT_EQ(request->ls_id, merged && *c.asked_switch == '\0' ? c.stored_switch : c.asked_switch);
      EXPECT_EQ(request->op_id, "asked");
    }
  }
}

}  // namespace
}  // namespace zem::zema
