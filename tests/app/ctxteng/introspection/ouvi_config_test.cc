#include "app/ctxteng/introspection/ouvi_config.h"

#include <gmock/gmock.h>

#include "app/ctxteng/introspection/ouvi_introspection.h"
#include "platform/core/uuid.h"
#include "platform/upm/upm_service.h"
#include "proto/context/agent_config.pb.h"
#include "proto/covedb/firewall_objects.pb.h"
#include "proto/covedb/introspection_objects.pb.h"
#include "proto/covedb/profile_objects.pb.h"
#include "proto/covedb/runtime_objects.pb.h"
#include "tests/app/ctxteng/introspection/mux_store.h"
#include "tests/covedbclient/client_fixture.h"

namespace Ctxt {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using zem::covedb::test::ObjectType;
namespace proto = orlane::zem::covedb;

constexpr const char* kVm = "00000000-0000-0000-0000-0000000000a1";
constexpr const char* kSection = "00000000-0000-0000-0000-0000000000b1";
constexpr const char* kJson =
    R"({"solution_config":{"service_id":"s","solution_id":"77","vendor_template_key":"gold"},"file_categories":"PE"})";

class Alarm final : public PartnerAlarm {
 public:
  void Start() override {}
  bool Raise(const std::string& id) override { return Note("raise " + id); }
  bool Reset(const std::string& id) override { return Note("reset " + id); }
  void ResetAll(const std::string& id) override { Note("reset all " + id); }
  void Shutdown() override { Note("shutdown"); }
  std::vector<std::string> Take() { return std::exchange(calls_, {}); }
  bool works = true;

 private:
  bool Note(std::string call) {
    calls_.push_back(std::move(call));
    return works;
  }
  std::vector<std::string> calls_;
};

class Health final : public ConfigHealth {
 public:
  void SendStatus(uint32_t code, const std::string&) override {
    std::lock_guard lock(mutex_);
    codes_.push_back(code);
  }
  std::vector<uint32_t> Take() {
    std::lock_guard lock(mutex_);
    return std::exchange(codes_, {});
  }

 private:
  std::mutex mutex_;  // guards codes_
  std::vector<uint32_t> codes_;
};

class OuviConfigTest : public zem::covedb::test::ClientFixture {
 protected:
  OuviConfigTest() {
    Connect();
    service->Start();
  }
  ~OuviConfigTest() override {
    ouvi.Shutdown();
    service->Stop();
  }

  void Start() {
    ouvi.Start(client, service);
    ouvi.HandleMuxConnected();
    Run();
  }
  void Run() { clock.RunFor(std::chrono::milliseconds(200)); }
  // One transaction at the store.
  void Write(std::initializer_list<proto::ModifyMsg> changes) {
    const auto requests = zem::covedb::test::Requests(changes);
    ASSERT_TRUE(daemon->store().Modify({requests.begin(), requests.end()}).ok());
    Run();
  }
  static proto::ModifyMsg Put(ObjectType type, const google::protobuf::MessageLite& object) {
    proto::ModifyMsg change;
    change.mutable_put_msg()->set_object_type(type);
    change.mutable_put_msg()->set_object(object.SerializeAsString());
    return change;
  }
  static proto::ModifyMsg Delete(ObjectType type, const google::protobuf::MessageLite& object) {
    proto::ModifyMsg change;
    change.mutable_delete_msg()->set_object_type(type);
    change.mutable_delete_msg()->set_object(object.SerializeAsString());
    return change;
  }
  static proto::ModifyMsg Solutions(std::initializer_list<std::pair<std::string, std::string>> solutions) {
    proto::GiSolutionInfoMsg info;
    info.mutable_transport_node_id()->set_first(5);
    for (const auto& [id, instance] : solutions) {
      auto* const svm = info.add_gi_svm();
      svm->set_solution_id(id);
      svm->set_service_instance_id(instance);
    }
    return Put(ObjectType::GI_SOLUTION_INFO, info);
  }
  static proto::RuleMsg Rule(uint32_t id, std::initializer_list<std::string> groups, uint64_t order = 1) {
    proto::RuleMsg rule;
    rule.set_id(id);
    rule.set_type(6);
    rule.set_action(24);
    rule.set_order(order);
    zem::SetUuid(*zem::ParseUuid(kSection), rule.mutable_section_id());
    rule.add_context_profile_id("p1");
    for (const std::string& group : groups) rule.add_applied_to(group);
    return rule;
  }
  static proto::ModifyMsg Groups(const std::string& vm, std::initializer_list<std::string> groups) {
    proto::VmGroupRelationMsg relation;
    relation.set_vm_id(vm);
    for (const std::string& group : groups) relation.add_group_id(group);
    return Put(ObjectType::VM_GROUP_RELATION, relation);
  }
  static proto::ModifyMsg Profile(const std::string& type = "MPS") {
    proto::ContextProfileMsg profile;
    profile.set_id("p1");
    auto* const attribute = profile.add_attribute();
    attribute->set_type(type);
    attribute->add_value(kJson);
    return Put(ObjectType::CONTEXT_PROFILE, profile);
  }
  static proto::ModifyMsg Barrier(uint64_t value) {
    proto::BarrierMsg barrier;
    barrier.set_value(value);
    return Put(ObjectType::BARRIER, barrier);
  }
  static proto::ModifyMsg GiProfile() {
    orlane::zem::context::GiServiceProfileMsg service;
    service.set_service_solution_id("88");
    proto::ProfileMsg profile;
    profile.set_id("gi");
    profile.set_type(zem::upm::GI_SERVICE);
    profile.set_tag("silver");
    profile.set_payload(service.SerializeAsString());
    return Put(ObjectType::PROFILE, profile);
  }
  static proto::ModifyMsg Bind(const std::string& vm) {
    proto::ProfileBindingMsg binding;
    binding.set_entity_id(vm);
    binding.set_entity_type(zem::upm::ENTITY_VM);
    binding.add_profile_id("gi");
    return Put(ObjectType::PROFILE_BINDING, binding);
  }
  template <class Message>
  std::vector<std::string> Objects(ObjectType type) {
    proto::GetRequestMsg request;
    proto::GetResponseMsg response;
    request.set_vdb_id(1);
    request.add_object_request()->set_object_type(type);
    EXPECT_TRUE(daemon->store().Get(request, &response).ok());
    std::vector<std::string> texts;
    for (const auto& object : response.object()) {
      Message message;
      EXPECT_TRUE(message.ParseFromString(object.object()));
      texts.push_back(message.ShortDebugString());
    }
    return texts;
  }

  const std::shared_ptr<test::MuxStore> mux_port = std::make_shared<test::MuxStore>();
  test::MuxStore& mux = *mux_port;
  const std::shared_ptr<Alarm> alarm_port = std::make_shared<Alarm>();
  Alarm& alarm = *alarm_port;
  const std::shared_ptr<Health> health_port = std::make_shared<Health>();
  Health& health = *health_port;
  std::shared_ptr<zem::upm::UPMService> service = std::make_shared<zem::upm::UPMService>(client);
  OuviConfig ouvi{mux_port, alarm_port, health_port};
};

TEST_F(OuviConfigTest, EngineAndSolutionsReachTheMultiplexer) {
  Start();
  ASSERT_EQ(mux.solutions().gi_svm_size(), 1);
  EXPECT_EQ(mux.solutions().gi_svm(0).ShortDebugString(),
            "solution_id: \"100\" connection_info { type: 2 ip_address: 0 port: 48656 }");
  Write({Solutions({{"s1", "i1"}})});
  ASSERT_EQ(mux.solutions().gi_svm_size(), 2);
  EXPECT_EQ(mux.solutions().gi_svm(0).solution_id(), "100");
  EXPECT_EQ(mux.solutions().gi_svm(1).service_instance_id(), "i1");
  EXPECT_EQ(mux.solutions().transport_node_id().first(), 5U);
  EXPECT_THAT(health.Take(), ElementsAre(200, 200));
  mux.status = 0x10002;
  Write({Solutions({{"s2", "i2"}})});
  EXPECT_THAT(health.Take(), ElementsAre(204));
}

// A multiplexer that comes back knows nothing, and gets everything from the sources in one order.
TEST_F(OuviConfigTest, ReturnOfTheMultiplexerSendsEverythingAgain) {
  mux.status = 0x10005;
  ouvi.Start(client, service);
  EXPECT_EQ(ouvi.mux_state(), MUX_DISCONNECTED);
  EXPECT_TRUE(log.Contains("errorCode=\"ERR_CTXT_MUX_CTXTENG_CONFIG\""));
  Write({Solutions({{"s1", "i1"}}), GiProfile(), Bind(kVm), Groups(kVm, {"g"}), Profile(),
         Put(ObjectType::RULE, Rule(1, {"g"}))});
  mux.TakeLog();
  mux.status = 0;
  health.Take();
  ouvi.HandleMuxConnected();
  Run();
  EXPECT_THAT(mux.TakeLog(), ElementsAre("vm", "solution", "rule"));
  EXPECT_THAT(health.Take(), ElementsAre(100, 200, 300));
  EXPECT_THAT(mux.by_profile(), ElementsAre(Pair(kVm, "88/silver/88")));
  EXPECT_THAT(mux.by_rule(), ElementsAre(Pair(kVm, "77/gold_RA_DETECT_PREVENT/77")));

  mux.Forget();
  ouvi.HandleMuxDisconnected();
  ouvi.HandleMuxConnected();
  Run();
  EXPECT_EQ(mux.solutions().gi_svm_size(), 2);
  EXPECT_THAT(mux.by_profile(), ElementsAre(Pair(kVm, "88/silver/88")));
  EXPECT_THAT(mux.by_rule(), ElementsAre(Pair(kVm, "77/gold_RA_DETECT_PREVENT/77")));
}

// Without solutions in the store the engine's own end point is all there is; without answers of the store,
// what it said last holds.
TEST_F(OuviConfigTest, ReturnOfTheMultiplexerDoesNotDependOnTheStore) {
  Start();
  const auto bounce = [this] {
    mux.Forget();
    ouvi.HandleMuxDisconnected();
    ouvi.HandleMuxConnected();
    Run();
  };
  bounce();
  EXPECT_EQ(mux.solutions().gi_svm_size(), 1);
  Write({Solutions({{"s1", "i1"}}), Groups(kVm, {"g"}), Profile(), Put(ObjectType::RULE, Rule(1, {"g"}))});
  daemon->faults().SetStatus("Get", 14, 2);
  health.Take();
  bounce();
  EXPECT_THAT(health.Take(), testing::UnorderedElementsAre(203, 303, 200, 300));
  EXPECT_EQ(mux.solutions().gi_svm_size(), 2);
  EXPECT_EQ(mux.by_rule().size(), 1U);
  daemon->StopListening();
  network.Break(zem::covedb::test::kEndpoint);
  clock.RunFor(std::chrono::seconds(1));
  bounce();
  EXPECT_EQ(mux.solutions().gi_svm_size(), 2);
}

TEST_F(OuviConfigTest, RulesAreFollowedThroughEachKindOfChange) {
  Start();
  Write({Profile(), Put(ObjectType::RULE, Rule(1, {"g"})), Groups(kVm, {"other"})});
  EXPECT_THAT(mux.by_rule(), IsEmpty());
  Write({Groups(kVm, {"g"})});
  EXPECT_THAT(mux.by_rule(), ElementsAre(Pair(kVm, "77/gold_RA_DETECT_PREVENT/77")));
  mux.TakeLog();
  Write({Put(ObjectType::RULE, Rule(1, {"g"}))});
  EXPECT_THAT(mux.TakeLog(), IsEmpty()) << "the same rule again";
  Write({Profile("URL")});
  EXPECT_THAT(mux.TakeLog(), IsEmpty()) << "an attribute of another type";
  Write({Profile()});
  EXPECT_THAT(mux.TakeLog(), ElementsAre("rule"));
  Write({Put(ObjectType::RULE, Rule(1, {}))});
  EXPECT_THAT(mux.by_rule(), IsEmpty());
  Write({Put(ObjectType::RULE, Rule(1, {"g"}))});
  Write({Groups(kVm, {})});
  EXPECT_THAT(mux.by_rule(), IsEmpty());
  Write({Groups(kVm, {"g"})});
  Write({Delete(ObjectType::RULE, Rule(1, {}))});
  EXPECT_THAT(mux.by_rule(), IsEmpty());

  proto::RuleMsg foreign = Rule(2, {"g"});
  foreign.set_type(1);
  mux.TakeLog();
  Write({Put(ObjectType::RULE, foreign)});
  EXPECT_THAT(mux.TakeLog(), IsEmpty()) << "a rule of another feature";
}

// The barrier is written back behind the pushes that it closes; deletions while the store was away take
// effect.
TEST_F(OuviConfigTest, BarriersAndTheStoresReturn) {
  Start();
  Write({Profile(), Put(ObjectType::RULE, Rule(1, {"g"})), Groups(kVm, {"g"})});
  mux.Hold(true);
  Write({Groups(kVm, {"g", "h"}), Barrier(41)});
  EXPECT_THAT(Objects<proto::ProcessedBarrierMsg>(ObjectType::PROCESSED_BARRIER), IsEmpty());
  mux.Hold(false);
  Run();
  EXPECT_THAT(Objects<proto::ProcessedBarrierMsg>(ObjectType::PROCESSED_BARRIER),
              ElementsAre("component: 13 value: 41"));
  network.Break(zem::covedb::test::kEndpoint);
  proto::ContextProfileMsg profile;
  profile.set_id("p1");
  const auto requests = zem::covedb::test::Requests(
      {Delete(ObjectType::RULE, Rule(1, {})), Delete(ObjectType::CONTEXT_PROFILE, profile), Barrier(42)});
  ASSERT_TRUE(daemon->store().Modify({requests.begin(), requests.end()}).ok());
  EXPECT_THAT(mux.by_rule(), ElementsAre(Pair(kVm, "77/gold_RA_DETECT_PREVENT/77")));
  clock.RunFor(std::chrono::seconds(20));
  EXPECT_THAT(mux.by_rule(), IsEmpty());
  EXPECT_THAT(Objects<proto::ProcessedBarrierMsg>(ObjectType::PROCESSED_BARRIER),
              ElementsAre("component: 13 value: 42"));
}

// The store may end a stream within a connection; what is removed before the next one opens is not told.
TEST_F(OuviConfigTest, RemovalBetweenTwoStreamsIsFound) {
  Start();
  Write({Profile(), Put(ObjectType::RULE, Rule(1, {"g"})), Groups(kVm, {"g"})});
  EXPECT_EQ(mux.by_rule().size(), 1U);
  daemon->store().streams().End("", zem::rpc::Status(2, "forgotten"));
  Write({Delete(ObjectType::RULE, Rule(1, {}))});
  Run();
  EXPECT_THAT(mux.by_rule(), IsEmpty());
}

TEST_F(OuviConfigTest, RefusalIsAnErrorOfTheNodeUntilAPushSucceeds) {
  Start();
  Write({Profile(), Put(ObjectType::RULE, Rule(1, {"g"})), Groups(kVm, {"g"})});
  mux.status = 0x10003;
  Write({Groups(kVm, {"g", "h"})});
  Write({Groups(kVm, {"g", "i"})});
  EXPECT_THAT(
      Objects<proto::RuntimeStatusMsg>(ObjectType::RUNTIME_STATUS),
      ElementsAre("status: 13 realization_error { code: 9001 error_text: \"Error in zem-context-library "
                  "while configuring zem-context-mux with AM config\" }"));
  mux.status = 0;
  Write({Groups(kVm, {"g"})});
  EXPECT_THAT(Objects<proto::RuntimeStatusMsg>(ObjectType::RUNTIME_STATUS), ElementsAre("status: 13"));
}

TEST_F(OuviConfigTest, PartnerAlarmFollowsServiceVmAndMultiplexer) {
  Start();
  Write({Solutions({{"s1", "i1"}, {"s2", "i2"}})});
  ouvi.HandleSvmDisconnected("100");
  ouvi.HandleSvmDisconnected("unknown");
  EXPECT_THAT(alarm.Take(), IsEmpty());
  EXPECT_EQ(log.Count("errorCode=\"CTX353\""), 1U);
  ouvi.HandleSvmDisconnected("s1");
  EXPECT_THAT(alarm.Take(), ElementsAre("raise i1"));
  ouvi.HandleMuxDisconnected();
  EXPECT_THAT(alarm.Take(), testing::UnorderedElementsAre("raise i1", "raise i2"));
  ouvi.HandleMuxDisconnected();
  ouvi.HandleMuxConnected();
  Run();
  EXPECT_THAT(alarm.Take(), ElementsAre("reset i2")) << "the service VM of s1 has not come back";
  ouvi.HandleSvmConnected("s1");
  EXPECT_THAT(alarm.Take(), ElementsAre("reset i1"));

  // A solution that went down, left and came back as another instance starts clean.
  ouvi.HandleSvmDisconnected("s1");
  Write({Solutions({{"s2", "i2"}})});
  Write({Solutions({{"s1", "i9"}, {"s2", "i2"}})});
  EXPECT_THAT(alarm.Take(), ElementsAre("raise i1", "reset all i1"));
  ouvi.HandleMuxDisconnected();
  ouvi.HandleMuxConnected();
  Run();
  EXPECT_THAT(alarm.Take(), testing::UnorderedElementsAre("raise i9", "raise i2", "reset i9", "reset i2"));
  Write({Solutions({{"s1", "i10"}, {"s2", "i2"}})});
  EXPECT_THAT(alarm.Take(), ElementsAre("reset all i9"));
  EXPECT_EQ(ouvi.GetServiceInstanceId("s1"), "i10");
}

TEST(OuviIntrospectionTest, StopsWithoutHavingStarted) {
  OuviIntrospection introspection(nullptr, nullptr);
  introspection.Shutdown();
}

TEST_F(OuviConfigTest, DisconnectBeforeAnyConnectRaisesNothing) {
  ouvi.Start(client, service);
  Write({Solutions({{"s1", "i1"}})});
  ouvi.HandleMuxDisconnected();
  EXPECT_EQ(ouvi.mux_state(), MUX_DISCONNECTED);
  EXPECT_THAT(alarm.Take(), IsEmpty());
}

}  // namespace
}  // namespace Ctxt
