#include "covedbclient/server_schema.h"

#include <gmock/gmock.h>

#include "covedbclient/modify_queue.h"
#include "tests/covedbclient/store_messages.h"
#include "tests/support/log_capture.h"

namespace zem::covedb::test {
namespace {

using CallState = ServerSchema::CallState;

TEST(ServerSchemaTest, ObjectCountIsTheLastEnumerator) {
  const std::pair<const char*, uint32_t> cases[] = {
      {"enum ObjectType { A = 1; B = 188; }", 188},
      {"message X {}\nenum ObjectType {\n  A = 0;\n  B = 217 [deprecated = true];\n}\nenum Y { C = 5; }",
       217},
      {"enum ObjectType { A = 3; }", 3},
      {"enum ObjectType { A = x; }", 0},
      {"enum ObjectType { A; }", 0},
      {"enum ObjectType { A = ; }", 0},
      {"enum ObjectType { A = 99999999999; }", 0},
      {"enum ObjectType {", 0},
      {"enum ObjectType { A = 5", 0},
      {"enum Other { A = 5; }", 0},
      {"", 0},
  };
  for (const auto& [text, count] : cases) EXPECT_EQ(CountSchemaObjects(text), count) << text;
}

TEST(ServerSchemaTest, VersionsCompareAsFarAsTheShorterGoes) {
  const std::tuple<const char*, const char*, std::optional<int>> cases[] = {
      {"3.1.2", "3.1", 0},   {"3.1", "3.1.9", 0},   {"3.10.0", "3.9.0", 1},           {"3.1.2", "3.1.3", -1},
      {"4.0.0", "3.9.9", 1}, {"3.2.0", "3.1.5", 1}, {"3.x.0", "3.1.0", std::nullopt}, {"", "3", std::nullopt},
      {"0", "3.0", -1},
  };
  for (const auto& [left, right, order] : cases)
    EXPECT_EQ(CompareVersions(left, right), order) << left << " " << right;
}

// The number of objects decides which writes are dropped, so it has to come from the right source.
TEST(ServerSchemaTest, CountComesFromSchemaElseVersionTable) {
  struct Case {
    CallState schema, version;
    const char* version_text;
    bool known;
    uint32_t objects;
  };
  const Case cases[] = {
      {CallState::kAnswered, CallState::kWaiting, "", true, 200},
      {CallState::kAnswered, CallState::kAnswered, "3.0.0", true, 200},
      {CallState::kWaiting, CallState::kAnswered, "3.1.2.0.12345", true, 188},
      {CallState::kWaiting, CallState::kAnswered, "3.2.0-rc", true, 217},
      {CallState::kWaiting, CallState::kAnswered, "3.2.1", false, 200},
      {CallState::kWaiting, CallState::kAnswered, "3.2", false, 200},
      {CallState::kTimedOut, CallState::kTimedOut, "0", true, 178},
      {CallState::kTimedOut, CallState::kWaiting, "", false, 200},
      {CallState::kWaiting, CallState::kWaiting, "", false, 200},
  };
  for (const Case& c : cases) {
    ServerSchema schema;
    schema.SetSchema("enum ObjectType { A = 200; }");
    schema.SetSchemaState(c.schema);
    schema.SetVersionState(c.version);
    schema.SetVersion(c.version_text);
    EXPECT_EQ(schema.CheckSchemaCallbackStates(), c.known) << c.version_text;
    EXPECT_EQ(schema.checked(), c.known);
    EXPECT_EQ(schema.objects(), c.objects) << c.version_text;
  }
}

TEST(ServerSchemaTest, ChangesOfUnknownOrTooNewTypesAreDropped) {
  zem::test::LogCapture log;
  ServerSchema schema;
  auto requests = Requests({Put("a")});
  EXPECT_FALSE(schema.IsObjectInServerSchema(ObjectType::RULE));
  EXPECT_TRUE(log.Contains("server schema not known yet!"));

  schema.SetSchema("enum ObjectType { A = 136; }");
  schema.SetVersion("3.1.0");
  std::vector<ObjectType> told;
  const auto tell = [&told](ObjectType type) { told.push_back(type); };
  schema.SetVersionConstraint(ObjectType::RULE, "3.1.1", tell);
  schema.SetVersionConstraint(ObjectType::RULE, "1.0.0", nullptr);  // the first stays
  schema.SetVersionConstraint(ObjectType::VIF_STATE, "3.1", tell);
  schema.SetVersionConstraint(ObjectType::BARRIER, "3.one", tell);
  requests = Requests({Put("a", {}, ObjectType::GLOBAL_CONFIG), Put("b", {}, ObjectType::GI_SOLUTION_INFO),
                       Put("c", {}, ObjectType::RULE), Put("d", {}, ObjectType::VIF_STATE),
                       Put("e", {}, ObjectType::BARRIER)});
  requests.splice(requests.end(), Requests({Put("f", {}, ObjectType::RULE)}));
  schema.ModifyMsgVersionCheck(requests);
  ASSERT_EQ(requests.size(), 1u);
  ASSERT_EQ(requests.front().modify_msg_size(), 2);
  EXPECT_EQ(ObjectTypeOf(requests.front().modify_msg(0)), ObjectType::GLOBAL_CONFIG);
  EXPECT_EQ(ObjectTypeOf(requests.front().modify_msg(1)), ObjectType::VIF_STATE);
  EXPECT_THAT(told, testing::ElementsAre(ObjectType::RULE, ObjectType::RULE));
  EXPECT_TRUE(log.Contains(
      "Version check fails for object RULE, server schema version = 3.1.0,object version = 3.1.1"));
}

}  // namespace
}  // namespace zem::covedb::test
