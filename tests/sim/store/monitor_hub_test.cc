#include "sim/store/monitor_hub.h"

#include <gmock/gmock.h>

#include <numeric>

#include "sim/store/store.h"
#include "tests/covedbclient/store_messages.h"

namespace zem::sim {
namespace {

using namespace zem::covedb::test;  // NOLINT: the short message builders
using proto::WhereMsg;
using rpc::StatusCode;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr ObjectType kType = ObjectType::SCENARIO_OBJECT;

// Writes down what it gets: "7a 8b |" for a set, a delete and a mark.
class RecordingSink final : public MonitorSink {
 public:
  bool Write(const proto::MonitorResponseMsg& response) override {
    if (full) return false;
    for (const auto& update : response.update()) {
      proto::ObjectOpMsg operation;
      proto::ScenarioObjectMsg object;
      EXPECT_TRUE(operation.ParseFromString(update.operation()));
      if (!object.ParseFromString(update.object())) object.set_id("?");
      text += std::to_string(operation.operation()) + object.id() + " ";
    }
    sizes.push_back(response.update_size());
    if (response.mark().barrier()) text += "| ";
    return true;
  }
  void Close(const rpc::Status& status) override { closed = status.code(); }

  std::string Take() { return std::exchange(text, {}); }

  bool full = false;
  int closed = -1;
  std::vector<int> sizes;
  std::string text;
};

class MonitorHubTest : public testing::Test {
 protected:
  std::shared_ptr<RecordingSink> Open(const std::string& id, std::list<proto::MonitorStatementMsg> statements,
                                      const std::string& client = "agent", uint32_t vdb = 1) {
    proto::MonitorRequestMsg request;
    request.set_monitor_id(id);
    request.set_vdb_id(vdb);
    for (const auto& statement : statements) *request.add_monitor_statement() = statement;
    auto sink = std::make_shared<RecordingSink>();
    store.Monitor(client, request, sink);
    return sink;
  }
  void Modify(std::initializer_list<proto::ModifyMsg> changes) {
    const auto requests = Requests(changes);
    ASSERT_TRUE(store.Modify({requests.begin(), requests.end()}).ok());
  }
  int Configure(std::list<proto::MonitorStatementMsg> add, std::list<proto::MonitorStatementMsg> remove,
                std::list<proto::MonitorStatementUpdateMsg> update, const std::string& client = "agent") {
    proto::ConfigureMonitorRequestMsg request;
    request.set_monitor_request_id("m");
    for (const auto& statement : add) *request.add_statement_to_add() = statement;
    for (const auto& statement : remove) *request.add_statement_to_remove() = statement;
    for (const auto& statement : update) *request.add_statement_update() = statement;
    response.Clear();
    return store.ConfigureMonitor(client, request, &response).code();
  }

  ObjectRegistry registry;
  Store store{registry};
  proto::ConfigureMonitorResponseMsg response;
};

TEST_F(MonitorHubTest, StreamBeginsWithWhatIsThereAndFollowsBatches) {
  Modify({Put("a"), Put("b")});
  const auto sink = Open("m", {Watch(kType)});
  EXPECT_EQ(sink->Take(), "7a 7b | ");
  Modify({Put("c"), Delete("a"), Put("x", {}, ObjectType::TN_DESIRED_CONFIG_23)});
  EXPECT_EQ(sink->Take(), "7c 8a | ") << "one mark for the batch, and nothing of other types";
  Modify({Delete("never")});
  EXPECT_EQ(sink->Take(), "");
  EXPECT_EQ(Open("empty", {})->Take(), "| ") << "the mark alone tells that nothing is there";
  EXPECT_EQ(store.streams().SendBarrier(1), 2u);
  EXPECT_EQ(sink->Take(), "| ");
}

TEST_F(MonitorHubTest, LongReplaysComeInPieces) {
  std::vector<proto::ModifyRequestMsg> batch(1);
  for (int i = 0; i < 1001; ++i) *batch[0].add_modify_msg() = Put(std::to_string(i));
  ASSERT_TRUE(store.Modify(batch).ok());
  const auto sink = Open("m", {Watch(kType)});
  EXPECT_THAT(sink->sizes, ElementsAre(500, 500, 1));
  EXPECT_EQ(sink->text.find('|'), sink->text.size() - 2) << "the mark is on the last";
}

TEST_F(MonitorHubTest, ConditionsDecideWhatIsSeen) {
  const WhereMsg a = Where("id", WhereMsg::PREFIX, "a");
  const WhereMsg small = Where("number", WhereMsg::LESS, "10");
  proto::ModifyMsg high = Put("b1"), low = Put("b1");
  high.mutable_put_msg()->set_object(Object("b1", 50));
  low.mutable_put_msg()->set_object(Object("b1", 5));
  Modify({Put("a1"), high});
  const auto sink = Open("m", {Watch(kType, {a})});
  EXPECT_EQ(sink->Take(), "7a1 | ");
  EXPECT_EQ(Configure({}, {}, {UpdateOf(kType, {small}, {})}), 0);
  EXPECT_EQ(sink->Take(), "| ") << "nothing new came into sight";
  Modify({low});
  EXPECT_EQ(sink->Take(), "7b1 | ");
  Modify({high});
  EXPECT_EQ(sink->Take(), "8b1 | ") << "out of sight is gone";
  EXPECT_EQ(Configure({}, {}, {UpdateOf(kType, {}, {a, small})}), 0);
  EXPECT_EQ(sink->Take(), "7b1 | ") << "without conditions all is in sight";
}

TEST_F(MonitorHubTest, ConfigureChangesARunningStreamOrNothing) {
  Modify({Put("a")});
  const auto sink = Open("m", {});
  EXPECT_EQ(sink->Take(), "| ");
  EXPECT_EQ(Configure({Watch(kType)}, {}, {}), 0);
  EXPECT_EQ(response.ShortDebugString(), "monitored { object_type: SCENARIO_OBJECT id: 221 }");
  EXPECT_EQ(sink->Take(), "7a | ");

  const int invalid = static_cast<int>(StatusCode::kInvalidArgument);
  EXPECT_EQ(Configure({Watch(kType)}, {}, {}), invalid);
  EXPECT_EQ(Configure({Watch(ObjectType::TN_DESIRED_CONFIG_23)}, {Watch(ObjectType::BARRIER)}, {}), invalid);
  EXPECT_EQ(Configure({}, {}, {UpdateOf(ObjectType::BARRIER, {}, {})}), invalid);
  EXPECT_EQ(Configure({}, {}, {UpdateOf(kType, {}, {Where("id", WhereMsg::EQUAL, "a")})}), invalid);
  EXPECT_EQ(Configure({}, {Watch(kType)}, {}, "stranger"), invalid);
  EXPECT_EQ(store.streams().List()[0].types, std::vector{kType});
  EXPECT_EQ(sink->Take(), "");

  EXPECT_EQ(Configure({}, {Watch(kType)}, {}), 0);
  Modify({Put("b")});
  EXPECT_EQ(sink->Take(), "");
}

TEST_F(MonitorHubTest, IdsBelongToTheirClientAndVDbsEndTheirStreams) {
  const auto first = Open("m", {});
  EXPECT_EQ(Open("m", {}, "stranger")->closed, static_cast<int>(StatusCode::kInvalidArgument));
  EXPECT_EQ(first->closed, -1);
  const auto second = Open("m", {});
  EXPECT_EQ(first->closed, static_cast<int>(StatusCode::kCancelled));
  EXPECT_EQ(store.streams().List().size(), 1u);
  EXPECT_EQ(Open("n", {}, "agent", 7)->closed, static_cast<int>(StatusCode::kVdbGone));
  EXPECT_EQ(Open("", {})->closed, static_cast<int>(StatusCode::kInvalidArgument));
  EXPECT_EQ(Open("n", {Watch(kType), Watch(kType)})->closed, static_cast<int>(StatusCode::kInvalidArgument));

  uint16_t vdb = 0;
  ASSERT_TRUE(store.CreateVDb("x", &vdb).ok());
  const auto other = Open("n", {}, "agent", vdb);
  ASSERT_TRUE(store.DeleteVDb("x").ok());
  EXPECT_EQ(other->closed, static_cast<int>(StatusCode::kVdbGone));
  EXPECT_EQ(second->closed, -1);
  store.streams().Ended(*second);
  EXPECT_THAT(store.streams().List(), IsEmpty());
}

// A client that stops reading must neither lose updates silently nor fill the store's memory.
TEST_F(MonitorHubTest, SlowStreamsCatchUpOrEnd) {
  const auto slow = Open("m", {Watch(ObjectType::TN_DESIRED_CONFIG_23)});
  const auto other = Open("n", {Watch(ObjectType::TN_DESIRED_CONFIG_23)});
  slow->Take();
  const auto put = [this](size_t bytes) {
    std::vector<proto::ModifyRequestMsg> batch(1);
    *batch[0].add_modify_msg() = Put("x", {}, ObjectType::TN_DESIRED_CONFIG_23);
    batch[0].mutable_modify_msg(0)->mutable_put_msg()->set_object(std::string(bytes, 'x'));
    ASSERT_TRUE(store.Modify(batch).ok());
  };
  slow->full = true;
  put(1000);
  put(2000);
  EXPECT_EQ(slow->text, "");
  EXPECT_GT(store.streams().List()[0].behind_bytes, 3000u);
  slow->full = false;
  store.streams().Writable(*slow);
  EXPECT_EQ(slow->Take(), "7 | 7 | ");
  EXPECT_EQ(store.streams().List()[0].behind_bytes, 0u);

  slow->full = true;
  for (int i = 0; i < 5; ++i) put((size_t{2} << 20) + static_cast<size_t>(i));
  EXPECT_EQ(slow->closed, static_cast<int>(StatusCode::kResyncRequired));
  EXPECT_EQ(other->closed, -1);
}

}  // namespace
}  // namespace zem::sim
