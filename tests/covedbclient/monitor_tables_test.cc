#include "covedbclient/monitor_tables.h"

#include <gmock/gmock.h>

#include "tests/covedbclient/store_messages.h"
#include "tests/support/log_capture.h"

namespace zem::covedb::test {
namespace {

using proto::WhereMsg;
using testing::ElementsAre;
using testing::IsEmpty;

const proto::MonitorStatementMsg kPlain = Watch(ObjectType::RULE);
const WhereMsg kA = Where("id", WhereMsg::EQUAL, "a");
const WhereMsg kB = Where("id", WhereMsg::EQUAL, "b");
const WhereMsg kC = Where("id", WhereMsg::EQUAL, "c");

class MonitorTablesTest : public testing::Test {
 protected:
  void Register(uint32_t module, uint16_t vdb = 1) {
    ASSERT_TRUE(tables.Register(
        module,
        [this, module](const proto::MonitorUpdateMsg&) { calls.push_back("u" + std::to_string(module)); },
        [this, module] { calls.push_back("b" + std::to_string(module)); }, vdb));
  }
  bool Configure(std::list<proto::MonitorStatementMsg> add, std::list<proto::MonitorStatementMsg> remove,
                 uint32_t module, uint16_t vdb = 1) {
    request.Clear();
    return tables.Configure(add, remove, module, vdb, request);
  }
  bool Update(std::list<proto::MonitorStatementUpdateMsg> updates) {
    request.Clear();
    return tables.Update(updates, 1, request);
  }
  std::vector<std::string> Notify(ObjectType type, bool barrier, uint16_t vdb = 1) {
    calls.clear();
    proto::MonitorUpdateMsg update;
    update.set_object_type(type);
    tables.NotifyModules(update, vdb);
    if (barrier) tables.NotifyBarrier(vdb);
    return calls;
  }
  // The values of the stored conditions of RULE, in order.
  std::string Conditions() {
    proto::MonitorRequestMsg all;
    tables.AddStatements(
        1, [](ObjectType) { return true; }, all);
    std::string text;
    for (const auto& where : all.monitor_statement(0).statement().where()) text += where.value();
    return text;
  }

  MonitorTables tables;
  proto::ConfigureMonitorRequestMsg request;
  std::vector<std::string> calls;
  zem::test::LogCapture log;
};

// The store would send every update twice, or stop while one module still watches.
TEST_F(MonitorTablesTest, ModulesShareOneStatementUntilTheLastOneLeaves) {
  Register(4);
  Register(9);
  EXPECT_TRUE(Configure({kPlain}, {}, 4));
  EXPECT_EQ(request.statement_to_add_size(), 1);
  EXPECT_TRUE(Configure({kPlain}, {}, 9));
  EXPECT_EQ(request.statement_to_add_size(), 0);
  EXPECT_THAT(Notify(ObjectType::RULE, true), ElementsAre("u4", "u9", "b4", "b9"));
  EXPECT_TRUE(Configure({}, {kPlain}, 4));
  EXPECT_EQ(request.statement_to_remove_size(), 0);
  EXPECT_THAT(Notify(ObjectType::RULE, false), ElementsAre("u9"));
  EXPECT_TRUE(Configure({}, {kPlain}, 9));
  EXPECT_EQ(request.statement_to_remove_size(), 1);
  EXPECT_THAT(Notify(ObjectType::RULE, false), IsEmpty());
}

TEST_F(MonitorTablesTest, RefusalsCarryTheirTagsAndKeepWhatWasDone) {
  struct Case {
    const char* tag;
    const char* text;
    std::function<bool()> call;
  };
  const auto updates = [](ObjectType type, auto add, auto remove) { return UpdateOf(type, add, remove); };
  using W = std::initializer_list<WhereMsg>;
  ASSERT_TRUE(Configure({Watch(ObjectType::BARRIER)}, {}, 1));
  const Case cases[] = {
      {"NDB103", "Unable to find monitor session for vdb_id 3",
       [&] { return tables.Register(1, nullptr, nullptr, 3); }},
      {"NDB103", "Unable to find monitor session for vdb_id 3",
       [&] { return Configure({kPlain}, {}, 1, 3); }},
      {"NDB103", "Unable to find monitor session for vdb_id 1", [&] { return tables.RemoveSession(1); }},
      {"NDB104", "An existing monitor session for vdb_id 4 already exists",
       [&] { return tables.AddSession(4) && tables.AddSession(4); }},
      {"NDB105", "MonitorStatementMsg is missing StatementMsg", [&] { return Configure({{}}, {}, 1); }},
      {"NDB105", "MonitorStatementMsg is missing StatementMsg", [&] { return Configure({}, {{}}, 1); }},
      {"NDB106", "No existing monitor found for the given vdb_id 4",
       [&] { return Configure({}, {kPlain}, 1, 4); }},
      {"NDB107", "No existing monitor found for the given object type: RULE",
       [&] { return Configure({}, {kPlain}, 1); }},
      {"NDB108", "MonitorStatementMsg for object_type: BARRIER does not match any existing monitor",
       [&] { return Configure({}, {Watch(ObjectType::BARRIER, {kA})}, 1); }},
      {"NDB110", "No module id 7 associated with the given object type: BARRIER",
       [&] { return Configure({}, {Watch(ObjectType::BARRIER)}, 7); }},
      {"NDB111",
       "An existing monitor for the object type: BARRIER with different MonitorStatementMsg already exists",
       [&] {
         return Configure({kPlain, Watch(ObjectType::BARRIER, {kA})}, {}, 2);
       }},
      {"NDB112", "Monitor for the object type: VIF_STATE not found",
       [&] { return Update({updates(ObjectType::VIF_STATE, W{kA}, W{})}); }},
      {"NDB113", "Where clause (path: \"id\" op: EQUAL value: \"b\") for the object type: RULE not found",
       [&] { return Update({updates(ObjectType::RULE, W{}, W{kB})}); }},
      {"NDB114",
       "Existing where clause (path: \"id\" op: EQUAL value: \"a\") for the object type: RULE already exists",
       [&] {
         return Update({updates(ObjectType::RULE, W{kA, kA}, W{})});
       }},
  };
  for (const Case& c : cases) {
    log.Clear();
    EXPECT_FALSE(c.call()) << c.text;
    EXPECT_TRUE(log.Contains(c.tag)) << c.text;
    EXPECT_TRUE(log.Contains("s2comp=\"covedb-client\"")) << c.text;
    ASSERT_EQ(log.Texts().size(), 1u) << c.text;
    EXPECT_EQ(log.Texts()[0], c.text);
  }
  // The statement before the refused one (NDB111) had been entered, or the last two cases would read
  // differently.
  EXPECT_TRUE(Configure({}, {kPlain}, 2));
}

TEST_F(MonitorTablesTest, UpdateMovesTheLastConditionIntoTheGap) {
  ASSERT_TRUE(Configure({Watch(ObjectType::RULE, {kA, kB, kC})}, {}, 1));
  EXPECT_TRUE(Update({UpdateOf(ObjectType::RULE, {}, {kA})}));
  EXPECT_EQ(Conditions(), "cb");
  EXPECT_EQ(request.statement_update_size(), 1);
  EXPECT_TRUE(Update({UpdateOf(ObjectType::RULE, {kA}, {}), UpdateOf(ObjectType::RULE, {}, {kC})}));
  EXPECT_EQ(Conditions(), "ab") << "the second update goes on from the first";
}

TEST_F(MonitorTablesTest, UpdateChangesAllOrNothing) {
  ASSERT_TRUE(Configure({Watch(ObjectType::RULE, {kA})}, {}, 1));
  EXPECT_FALSE(Update({UpdateOf(ObjectType::RULE, {kB}, {}), UpdateOf(ObjectType::RULE, {}, {kC})}));
  EXPECT_EQ(Conditions(), "a");
}

TEST_F(MonitorTablesTest, SecondRegistrationKeepsTheFirst) {
  Register(4);
  EXPECT_FALSE(tables.Register(4, nullptr, nullptr, 1));
  EXPECT_TRUE(log.Contains("CoveDbClient already has a callback registered formodule_id: 4"));
  ASSERT_TRUE(Configure({kPlain}, {}, 4));
  EXPECT_THAT(Notify(ObjectType::RULE, true), ElementsAre("u4", "b4"));
}

TEST_F(MonitorTablesTest, BarrierReachesOnlyModulesWithUpdatesSinceTheLast) {
  Register(1);
  Register(2);
  ASSERT_TRUE(Configure({kPlain}, {}, 1));
  ASSERT_TRUE(Configure({Watch(ObjectType::BARRIER)}, {}, 2));
  EXPECT_THAT(Notify(ObjectType::RULE, true), ElementsAre("u1", "b1"));
  EXPECT_THAT(Notify(ObjectType::VIF_STATE, true), IsEmpty())
      << "nobody's type, and nothing since the last mark";
  ASSERT_TRUE(Configure({Watch(ObjectType::VIF_STATE)}, {}, 77));
  EXPECT_THAT(Notify(ObjectType::VIF_STATE, true), IsEmpty()) << "a module without callbacks is passed over";
}

// A module may tear everything down from inside its own callback.
TEST_F(MonitorTablesTest, CallbacksMayChangeTheTablesUnderTheirFeet) {
  ASSERT_TRUE(tables.AddSession(2));
  auto proof = std::make_shared<int>(7);
  const std::weak_ptr<int> alive = proof;
  ASSERT_TRUE(tables.Register(
      1,
      [this, proof](const proto::MonitorUpdateMsg&) {
        EXPECT_TRUE(tables.RemoveSession(2));
        calls.push_back("gone " + std::to_string(*proof));
      },
      nullptr, 2));
  proof.reset();
  Register(3, 2);
  ASSERT_TRUE(Configure({kPlain}, {}, 1, 2));
  ASSERT_TRUE(Configure({kPlain}, {}, 3, 2));
  EXPECT_THAT(Notify(ObjectType::RULE, true, 2), ElementsAre("gone 7"));
  EXPECT_TRUE(alive.expired());
}

TEST_F(MonitorTablesTest, TypesThatTheStoreLacksAreForgotten) {
  ASSERT_TRUE(Configure({kPlain, Watch(ObjectType::BARRIER)}, {}, 1));
  proto::MonitorRequestMsg all;
  tables.AddStatements(
      1, [](ObjectType type) { return type == ObjectType::RULE; }, all);
  ASSERT_EQ(all.monitor_statement_size(), 1);
  EXPECT_EQ(all.monitor_statement(0).SerializeAsString(), kPlain.SerializeAsString());
  EXPECT_FALSE(Configure({}, {Watch(ObjectType::BARRIER)}, 1));
}

// Two modules watch the central configuration; different bytes would refuse one of them.
TEST(StatementsTest, OneTypeIsOneStatement) {
  EXPECT_EQ(MonitorStatementFor(ObjectType::GLOBAL_CONFIG).statement().select(), 1u);
  EXPECT_FALSE(MonitorStatementFor(ObjectType::VIF_STATE).statement().has_select());
  const auto list = MonitorStatementsFor({ObjectType::VIF_STATE, ObjectType::GLOBAL_CONFIG});
  EXPECT_EQ(list.back().SerializeAsString(),
            MonitorStatementFor(ObjectType::GLOBAL_CONFIG).SerializeAsString());
}

}  // namespace
}  // namespace zem::covedb::test
