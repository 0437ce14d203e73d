#include "platform/upm/upm_service.h"

#include <gmock/gmock.h>

#include "platform/core/loop_monitor.h"
#include "proto/covedb/profile_objects.pb.h"
#include "tests/covedbclient/client_fixture.h"

namespace zem::upm {
namespace {

using covedb::test::ObjectType;
using testing::ElementsAre;
using testing::IsEmpty;
namespace proto = orlane::zem::covedb;

class UpmServiceTest : public covedb::test::ClientFixture {
 protected:
  ~UpmServiceTest() override { service.Stop(); }

  void Write(std::initializer_list<proto::ModifyMsg> changes) {
    const auto requests = covedb::test::Requests(changes);
    ASSERT_TRUE(daemon->store().Modify({requests.begin(), requests.end()}).ok());
    clock.RunFor(std::chrono::milliseconds(100));
  }
  static proto::ModifyMsg Profile(const std::string& id, uint32_t type, const std::string& tag) {
    proto::ProfileMsg profile;
    profile.set_id(id);
    profile.set_type(type);
    profile.set_tag(tag);
    return PutOf(ObjectType::PROFILE, profile);
  }
  static proto::ModifyMsg Binding(const std::string& vm, std::initializer_list<std::string> profiles) {
    proto::ProfileBindingMsg binding;
    binding.set_entity_id(vm);
    binding.set_entity_type(ENTITY_VM);
    for (const std::string& id : profiles) binding.add_profile_id(id);
    return PutOf(ObjectType::PROFILE_BINDING, binding);
  }
  static proto::ModifyMsg PutOf(ObjectType type, const google::protobuf::MessageLite& object) {
    proto::ModifyMsg change;
    change.mutable_put_msg()->set_object_type(type);
    change.mutable_put_msg()->set_object(object.SerializeAsString());
    return change;
  }
  static proto::ModifyMsg Unbind(const std::string& vm) {
    proto::ModifyMsg change = Binding(vm, {});
    change.mutable_delete_msg()->set_object_type(ObjectType::PROFILE_BINDING);
    change.mutable_delete_msg()->set_object(change.put_msg().object());
    change.clear_put_msg();
    return change;
  }

  // "full" or "part", then each entity with its tags before and after.
  void Register() {
    service.Register(ENTITY_VM, {GI_SERVICE}, [this](const std::vector<ProfileUpdate>& updates, bool full) {
      std::string call = full ? "full" : "part";
      for (const ProfileUpdate& update : updates) {
        call += " " + update.entity_id + ":" + Tags(update.old_profiles) + ">" + Tags(update.new_profiles);
      }
      calls.push_back(call);
    });
  }
  static std::string Tags(const std::vector<upm::Profile>& profiles) {
    std::string tags;
    for (const upm::Profile& profile : profiles) tags += profile.tag;
    return tags;
  }
  std::vector<std::string> TakeCalls() {
    clock.RunFor(std::chrono::milliseconds(100));
    return std::exchange(calls, {});
  }

  std::vector<std::string> calls;
  UPMService service{client};
};

TEST_F(UpmServiceTest, UserGetsTheCompleteListAndThenWhatChanges) {
  Connect();
  service.Start();
  Write({Profile("p1", GI_SERVICE, "a"), Profile("p2", GI_SERVICE, "b"),
         Profile("px", CONTEXT_HOST_CONFIG, "x"), Binding("vm1", {"p2", "p1", "px", "not there"}),
         Binding("vm2", {"px"})});
  EXPECT_THAT(TakeCalls(), IsEmpty()) << "nobody has asked";
  Register();
  EXPECT_THAT(TakeCalls(), ElementsAre("full vm1:>ba"));
  Write({Binding("vm2", {"p1"}), Profile("p2", GI_SERVICE, "c")});
  EXPECT_THAT(TakeCalls(), ElementsAre("part vm1:ba>ca vm2:>a")) << "one transaction, one call";
  Write({Profile("px", CONTEXT_HOST_CONFIG, "y")});
  EXPECT_THAT(TakeCalls(), IsEmpty()) << "a type that it has not asked for";
  Write({Unbind("vm1")});
  EXPECT_THAT(TakeCalls(), ElementsAre("part vm1:ca>"));
  const auto effective = service.QueryEffective(GI_SERVICE, ENTITY_VM);
  ASSERT_EQ(effective.size(), 1U);
  EXPECT_EQ(effective[0].entity_id, "vm2");
  EXPECT_THAT(service.QueryEffective(GI_SERVICE, ENTITY_TRANSPORT_NODE), IsEmpty());
}

// What was removed while the store was away must reach the user, and what did not change must not be lost.
// A user that takes its time is found by who looks at the loops.
TEST_F(UpmServiceTest, UserThatHangsIsAStepOfTheLoop) {
  std::string busy;
  service.Register(ENTITY_VM, {GI_SERVICE}, [&busy](const std::vector<ProfileUpdate>&, bool) {
    for (const LoopReading& loop : LoopThread::ReadAll())
      if (loop.name == "upm") busy = loop.step;
  });
  Connect();
  service.Start();
  Write({Profile("p1", GI_SERVICE, "a"), Binding("vm-1", {"p1"})});
  clock.RunFor(std::chrono::seconds(1));
  service.Stop();
  EXPECT_EQ(busy, "profiles to a user");
}

TEST_F(UpmServiceTest, EachConnectionBeginsWithACompleteList) {
  Connect();
  service.Start();
  Register();
  Write({Profile("p1", GI_SERVICE, "a"), Binding("vm1", {"p1"}), Binding("vm2", {"p1"})});
  EXPECT_THAT(TakeCalls(), ElementsAre("full vm1:>a vm2:>a"));
  network.Break(covedb::test::kEndpoint);
  const auto requests = covedb::test::Requests({Unbind("vm1")});
  ASSERT_TRUE(daemon->store().Modify({requests.begin(), requests.end()}).ok());
  clock.RunFor(std::chrono::seconds(20));
  EXPECT_THAT(TakeCalls(), ElementsAre("full vm2:a>a vm1:a>"));

  // A store that has lost everything gives no barrier at all.
  daemon.reset();
  clock.RunFor(std::chrono::seconds(5));
  StartStore();
  clock.RunFor(std::chrono::seconds(60));
  EXPECT_THAT(TakeCalls(), ElementsAre("full vm2:a>"));
}

// The store may end a stream within a connection; what is removed before the next one opens is not told.
TEST_F(UpmServiceTest, RemovalBetweenTwoStreamsIsFound) {
  Connect();
  service.Start();
  Register();
  Write({Profile("p1", GI_SERVICE, "a"), Binding("vm1", {"p1"}), Binding("vm2", {"p1"})});
  TakeCalls();
  daemon->store().streams().End("", covedb::test::Status(2, "forgotten"));
  Write({Unbind("vm1")});
  // The removal may also come behind the new stream's opening, as a change of its own.
  EXPECT_THAT(TakeCalls(), testing::Contains(testing::HasSubstr("vm1:a>")));
  const auto effective = service.QueryEffective(GI_SERVICE, ENTITY_VM);
  ASSERT_EQ(effective.size(), 1U);
  EXPECT_EQ(effective[0].entity_id, "vm2");
}

TEST(UpmServiceWithoutStoreTest, NeverCalls) {
  UPMService service(nullptr);
  service.Start();
  service.Register(ENTITY_VM, {GI_SERVICE}, [](const auto&, bool) { ADD_FAILURE(); });
  EXPECT_FALSE(service.started());
  EXPECT_THAT(service.QueryEffective(GI_SERVICE, ENTITY_VM), IsEmpty());
  service.Stop();
}

}  // namespace
}  // namespace zem::upm
