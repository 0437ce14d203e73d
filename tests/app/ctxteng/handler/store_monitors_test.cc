#include "app/ctxteng/handler/store_monitors.h"

#include "platform/core/uuid.h"
#include "proto/covedb/firewall_objects.pb.h"
#include "tests/covedbclient/client_fixture.h"

namespace Ctxt {
namespace {

namespace store = orlane::zem::covedb;
using testing::ElementsAre;
using testing::IsEmpty;

/// Writes down what a client is told: "begins", "complete", and the operation and type of each update.
class Recorder final : public IStoreUpdates {
 public:
  void OnFeatureToggle(const store::MonitorUpdateMsg& update) override { Add(update); }
  void OnRule(const store::MonitorUpdateMsg& update) override { Add(update); }
  void StoreBegins() override { told.push_back("begins"); }
  void StoreComplete() override { told.push_back("complete"); }
  std::vector<std::string> Take() { return std::exchange(told, {}); }

 private:
  void Add(const store::MonitorUpdateMsg& update) {
    store::ObjectOpMsg operation;
    ASSERT_TRUE(operation.ParseFromString(update.operation()));
    told.push_back(std::to_string(operation.operation()) + ":" + std::to_string(update.object_type()));
  }

  std::vector<std::string> told;
};

class StoreMonitorsTest : public zem::covedb::test::ClientFixture {
 protected:
  void Start(uint32_t clients = kIdfwBit | kIdsBit, uint32_t active = kIdfwBit | kIdsBit) {
    Connect();
    ClientSet set;
    set.idfw_updates = idfw;
    set.ids_updates = ids;
    monitors = std::make_shared<StoreMonitors>(set);
    monitors->Configure(clients, client);
    monitors->SetActive(active);
    Run();
    idfw->Take();
    ids->Take();
  }
  void Run() { clock.RunFor(std::chrono::milliseconds(100)); }
  void Change(store::ObjectType type, const google::protobuf::Message& object, bool put) {
    store::ModifyRequestMsg request;
    auto* const change = request.add_modify_msg();
    if (put) {
      change->mutable_put_msg()->set_object_type(type);
      change->mutable_put_msg()->set_object(object.SerializeAsString());
    } else {
      change->mutable_delete_msg()->set_object_type(type);
      change->mutable_delete_msg()->set_object(object.SerializeAsString());
    }
    ASSERT_TRUE(daemon->store().Modify({request}).ok());
  }
  void Toggle(bool put) {
    store::SecurityFeatureToggleMsg toggle;
    zem::SetUuid(*zem::ParseUuid("11111111-2222-4333-8444-555555555555"), toggle.mutable_id());
    Change(store::SECURITY_FEATURE_TOGGLE, toggle, put);
  }
  void Rule(uint32_t id, bool put = true) {
    store::RuleMsg rule;
    rule.set_id(id);
    Change(store::RULE, rule, put);
  }
  void Outage(const std::function<void()>& meanwhile) {
    daemon->StopListening();
    daemon->DropConnections();
    clock.RunFor(std::chrono::seconds(3));
    meanwhile();
    daemon->Listen();
    clock.RunFor(std::chrono::seconds(30));
  }

  const std::shared_ptr<Recorder> idfw = std::make_shared<Recorder>();
  const std::shared_ptr<Recorder> ids = std::make_shared<Recorder>();
  std::shared_ptr<StoreMonitors> monitors;
};

TEST_F(StoreMonitorsTest, EachClientGetsWhatConcernsIt) {
  Start();
  Toggle(true);
  Rule(7);
  Toggle(false);
  Run();
  EXPECT_THAT(idfw->Take(), ElementsAre("7:195", "8:195"));
  EXPECT_THAT(ids->Take(), ElementsAre("7:195", "7:29", "8:195"));
}

// The store's barrier does not reach a module that gets nothing: the end of the only toggle would go unseen.
TEST_F(StoreMonitorsTest, WhatWasDeletedDuringAnOutageIsMissingBetweenBeginningAndEnd) {
  Start();
  Toggle(true);
  Rule(7);
  Rule(8);
  Run();
  idfw->Take();
  ids->Take();
  Outage([] {});
  EXPECT_THAT(idfw->Take(), ElementsAre("begins", "7:195", "complete"));
  EXPECT_THAT(ids->Take(), ElementsAre("begins", "7:29", "7:29", "7:195", "complete"));
  Outage([this] {
    Rule(7, false);
    Toggle(false);
  });
  EXPECT_THAT(ids->Take(), ElementsAre("begins", "7:29", "complete"));
  Outage([this] { Rule(8, false); });
  EXPECT_THAT(ids->Take(), ElementsAre("begins", "complete"));
  EXPECT_THAT(idfw->Take(), ElementsAre("begins", "complete", "begins", "complete"));
  // The stream is opened anew within a connection.
  daemon->store().streams().End("", zem::rpc::Status(zem::rpc::StatusCode::kResyncRequired));
  clock.RunFor(std::chrono::seconds(1));
  EXPECT_THAT(ids->Take(), ElementsAre("begins", "complete"));
}

// The answer that there are objects overtakes the objects: the end is behind them.
TEST_F(StoreMonitorsTest, TheEndWaitsForTheObjects) {
  Start(kIdfwBit, kIdfwBit);
  Toggle(true);
  Run();
  idfw->Take();
  daemon->faults().SetDelay("Monitor", std::chrono::milliseconds(500));
  Outage([] {});
  EXPECT_THAT(idfw->Take(), ElementsAre("begins", "7:195", "complete"));
}

TEST_F(StoreMonitorsTest, AStoreThatDoesNotAnswerIsAskedAgain) {
  Start(kIdfwBit, kIdfwBit);
  daemon->faults().SetStatus("Get", 14, 2);
  Outage([] {});
  EXPECT_THAT(idfw->Take(), ElementsAre("begins", "complete"));
  EXPECT_EQ(log.Count("CtxtClientHandler: The store does not tell what it has"), 2u);
}

// A client that becomes active after the store has said all gets it then.
TEST_F(StoreMonitorsTest, ClientThatIsLateReadsTheStore) {
  Start(kIdfwBit | kIdsBit, kIdsBit);
  Toggle(true);
  Rule(7);
  Run();
  EXPECT_THAT(idfw->Take(), IsEmpty());
  ids->Take();
  monitors->SetActive(kIdfwBit | kIdsBit);
  Run();
  EXPECT_THAT(idfw->Take(), ElementsAre("7:195"));
  monitors->SetActive(kIdsBit);
  Toggle(false);
  Run();
  EXPECT_THAT(idfw->Take(), IsEmpty());
}

// Once the tries are used up there was nobody to ask again, and the client stayed without the toggle.
TEST_F(StoreMonitorsTest, ClientThatIsLateIsNotForgottenWhenTheStoreRefuses) {
  Start(kIdfwBit | kIdsBit, kIdsBit);
  Toggle(true);
  Run();
  daemon->faults().SetStatus("Get", 14, 4);
  monitors->SetActive(kIdfwBit | kIdsBit);
  Run();
  EXPECT_THAT(idfw->Take(), IsEmpty());
  Rule(7);
  Run();
  EXPECT_THAT(idfw->Take(), ElementsAre("7:195"));
}

}  // namespace
}  // namespace Ctxt
