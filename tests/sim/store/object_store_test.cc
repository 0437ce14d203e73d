#include "sim/store/object_store.h"

#include <gmock/gmock.h>

#include "sim/store/where.h"
#include "tests/covedbclient/store_messages.h"

namespace zem::sim {
namespace {

using namespace zem::covedb::test;  // NOLINT: the short message builders
using proto::WhereMsg;
using rpc::StatusCode;
using testing::ElementsAre;

constexpr ObjectType kType = ObjectType::SCENARIO_OBJECT;

class ObjectStoreTest : public testing::Test {
 protected:
  int Apply(std::initializer_list<proto::ModifyMsg> list) {
    changes.clear();
    std::vector<proto::ModifyRequestMsg> batch;
    for (const proto::ModifyMsg& change : list) *batch.emplace_back().add_modify_msg() = change;
    return store.Apply(batch, &changes).code();
  }
  std::string Text(uint16_t vdb = 1) {
    std::string text;
    for (const auto& [key, value] : store.All(vdb, kType)) text += registry.ToText(kType, *value) + ";";
    return text;
  }
  static proto::ModifyMsg Patch(const std::string& text, std::initializer_list<uint32_t> vdbs = {}) {
    proto::ModifyMsg change;
    std::string error;
    change.mutable_patch_msg()->set_object_type(kType);
    change.mutable_patch_msg()->set_object(*ObjectRegistry().FromText(kType, text, &error));
    for (const uint32_t vdb : vdbs) change.mutable_patch_msg()->add_vdb_id(vdb);
    return change;
  }
  static proto::ModifyMsg Flush() {
    proto::ModifyMsg change;
    change.mutable_flush_msg()->set_object_type(kType);
    return change;
  }

  ObjectRegistry registry;
  ObjectStore store{registry};
  std::vector<ObjectChange> changes;
};

TEST_F(ObjectStoreTest, ChangesKeepOneObjectPerKeyAndTellWhatHappened) {
  EXPECT_EQ(Apply({Put("a"), Put("b"), Patch("id: 'a' text: 'hello'"), Patch("id: 'a' number: 5")}), 0);
  EXPECT_EQ(Text(), "id: \"a\" text: \"hello\" number: 5;id: \"b\" number: 0;");
  ASSERT_EQ(changes.size(), 4u);
  EXPECT_EQ(changes[0].before, nullptr);
  EXPECT_EQ(*changes[2].before, Object("a"));

  EXPECT_EQ(Apply({Delete("a"), Delete("a"), Delete("never")}), 0);
  ASSERT_EQ(changes.size(), 1u) << "deleting what is not there changes nothing";
  EXPECT_EQ(changes[0].after, nullptr);

  EXPECT_EQ(Apply({Put("c"), Flush()}), 0);
  EXPECT_EQ(Text(), "");
  EXPECT_EQ(changes.size(), 3u) << "one for each object that was there";
}

TEST_F(ObjectStoreTest, VDbsAreApartAndCopyBridgesThem) {
  uint16_t second = 0;
  ASSERT_TRUE(store.CreateVDb("second", &second).ok());
  EXPECT_EQ(store.CreateVDb("second", &second).code(), static_cast<int>(StatusCode::kAlreadyExists));
  EXPECT_EQ(second, 2);
  EXPECT_EQ(Apply({Put("a", {1, 2}), Put("b", {2}), Put("c")}), 0);
  EXPECT_EQ(Apply({CopyFrom(2, {1})}), 0);
  EXPECT_EQ(Text(1), "id: \"a\" number: 0;id: \"b\" number: 0;id: \"c\" number: 0;");
  EXPECT_EQ(Text(2), "id: \"a\" number: 0;id: \"b\" number: 0;");
  uint16_t gone = 0;
  EXPECT_TRUE(store.DeleteVDb("second", &gone).ok());
  EXPECT_EQ(gone, 2);
  EXPECT_EQ(store.DeleteVDb("second", &gone).code(), static_cast<int>(StatusCode::kNotFound));
  EXPECT_EQ(store.DeleteVDb("default", &gone).code(), static_cast<int>(StatusCode::kInvalidArgument));
  ASSERT_TRUE(store.CreateVDb("second", &second).ok());
  EXPECT_EQ(second, 3) << "an id is not given twice";
}

// A batch that is refused in its middle must leave nothing behind.
TEST_F(ObjectStoreTest, RefusedBatchesChangeNothing) {
  ASSERT_EQ(Apply({Put("kept"), Put("old")}), 0);
  const std::string before = Text();
  proto::ModifyMsg no_type = Put("x"), no_object = Put("x"), no_key = Put("x"), garbage = Put("x"),
                   two = Put("x"), missing_copy = CopyFrom(0, {1});
  no_type.mutable_put_msg()->clear_object_type();
  no_object.mutable_put_msg()->clear_object();
  no_key.mutable_put_msg()->set_object("");
  garbage.mutable_put_msg()->set_object("\xff\xff\xff");
  *two.mutable_delete_msg() = Delete("x").delete_msg();
  missing_copy.mutable_copy_msg()->set_object(Object("never"));
  store.SetLastType(ObjectType::SCENARIO_OBJECT);
  const std::tuple<const char*, proto::ModifyMsg, StatusCode> cases[] = {
      {"empty", {}, StatusCode::kInvalidArgument},
      {"two at once", two, StatusCode::kInvalidArgument},
      {"no type", no_type, StatusCode::kInvalidArgument},
      {"no object", no_object, StatusCode::kInvalidArgument},
      {"no key", no_key, StatusCode::kInvalidArgument},
      {"unknown type", Put("x", {}, ObjectType::IP_REPUTATION_RECORD_EVENT), StatusCode::kUnknownType},
      {"does not parse", garbage, StatusCode::kBadValue},
      {"no vdb", Put("x", {9}), StatusCode::kNotFound},
      {"vdb beyond 16 bits", Put("x", {65537}), StatusCode::kNotFound},
      {"no copy source", CopyFrom(9, {1}), StatusCode::kNotFound},
      {"no object to copy", missing_copy, StatusCode::kNotFound},
  };
  for (const auto& [name, change, code] : cases) {
    EXPECT_EQ(Apply({Put("new"), Delete("old"), Put("old"), Patch("id: 'kept' number: 9"), change}),
              static_cast<int>(code))
        << name;
    EXPECT_EQ(Text(), before) << name;
    EXPECT_TRUE(changes.empty()) << name;
  }
}

TEST_F(ObjectStoreTest, ConditionsSelectByAnyOfThem) {
  const auto selects = [this](std::initializer_list<WhereMsg> where, const std::string& text) {
    const proto::StatementMsg statement = Watch(kType, where).statement();
    std::string error;
    EXPECT_TRUE(CheckStatement(registry, statement).ok());
    return Matches(registry, statement, *registry.FromText(kType, text, &error));
  };
  const auto is = [](const char* path, WhereMsg::Operator op, const char* value) {
    return Where(path, op, value);
  };
  EXPECT_TRUE(selects({}, "id: 'a'"));
  EXPECT_TRUE(
      selects({is("id", WhereMsg::EQUAL, "b"), is("number", WhereMsg::GREATER, "9")}, "id: 'a' number: 10"))
      << "numbers compare as numbers";
  EXPECT_FALSE(selects({is("number", WhereMsg::LESS, "-1")}, "id: 'a' number: 0"));
  EXPECT_FALSE(selects({is("number", WhereMsg::EQUAL, "0")}, "id: 'a'")) << "absent is not zero";
  EXPECT_TRUE(selects({is("text", WhereMsg::NOT_EQUAL, "x")}, "id: 'a'"));
  EXPECT_TRUE(selects({is("id", WhereMsg::PREFIX, "ab")}, "id: 'abc'"));
  EXPECT_FALSE(selects({is("id", WhereMsg::PREFIX, "abcd")}, "id: 'abc'"));

  for (const auto& bad : {is("none", WhereMsg::EQUAL, ""), is("id.deep", WhereMsg::EQUAL, ""),
                          is("number", WhereMsg::EQUAL, "ten"), WhereMsg()}) {
    EXPECT_FALSE(CheckStatement(registry, Watch(kType, {bad}).statement()).ok()) << bad.ShortDebugString();
  }
  EXPECT_FALSE(
      CheckStatement(
          registry,
          Watch(ObjectType::IP_REPUTATION_RECORD_EVENT, {is("id", WhereMsg::EQUAL, "a")}).statement())
          .ok());
  EXPECT_FALSE(CheckStatement(registry, proto::StatementMsg()).ok());
}

TEST_F(ObjectStoreTest, ObjectsReadFromTextAndShowThemselves) {
  std::string error;
  EXPECT_EQ(registry.FromText(ObjectType::IP_REPUTATION_RECORD_EVENT, "hex:00fF", &error),
            std::string("\0\xff", 2));
  EXPECT_EQ(registry.FromText(kType, "text:any \"thing\"", &error), "any \"thing\"");
  EXPECT_EQ(registry.ToText(ObjectType::IP_REPUTATION_RECORD_EVENT, std::string("\0\xff", 2)), "hex:00ff");
  for (const char* bad : {"hex:0", "hex:zz", "id: a"}) {
    EXPECT_EQ(registry.FromText(kType, bad, &error), std::nullopt) << bad;
  }
  EXPECT_THAT(error, testing::HasSubstr("line 1, column 5"));
  EXPECT_EQ(registry.FromText(ObjectType::IP_REPUTATION_RECORD_EVENT, "id: 'a'", &error), std::nullopt);
  EXPECT_EQ(ParseObjectType("127"), ObjectType::OPAQUE_LOG_SWITCH_CONFIG);
  EXPECT_EQ(ParseObjectType("VIF_STATE"), ObjectType::VIF_STATE);
  for (const char* bad : {"", "3", "127x", "vif_state"}) EXPECT_EQ(ParseObjectType(bad), std::nullopt) << bad;
  EXPECT_THROW(registry.Register(kType, proto::ScenarioObjectMsg::default_instance(), "none"),
               std::invalid_argument);
}

}  // namespace
}  // namespace zem::sim
