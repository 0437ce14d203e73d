// The path of the controller's logical switches: store, monitors, workers, host, and the writes back to the
// store.

#include <atomic>

#include "app/zema/lswitch/covedb_update_task.h"
#include "app/zema/lswitch/db_svc_task_thread.h"
#include "app/zema/lswitch/logical_switch_batcher.h"
#include "app/zema/workers/worker_table.h"
#include "covedbclient/statements.h"
#include "framework/tasks/function_task.h"
#include "mpaclient/bus/bus_record.h"
#include "proto/covedb/runtime_objects.pb.h"
#include "proto/covedb/switching_objects.pb.h"
#include "tests/app/zema/covedb/store_fixture.h"
#include "tests/app/zema/lswitch/fake_host_parts.h"
#include "tests/app/zema/lswitch/fake_networks.h"
#include "tests/app/zema/lswitch/fake_sender.h"

namespace zem::zema {
namespace {

using orlane::zem::covedb::ModifyRequestMsg;
using sim::DeleteLogicalSwitches;
using sim::LogicalSwitchUuid;
using sim::PutLogicalSwitches;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr const char* kNoError = "status: 5";

class StoreRoadTest : public StoreFixture {
 protected:
  StoreRoadTest() {
    CoveDbHandler::Settings settings;
    settings.client = client;
    settings.timers = &agent.timers();
    settings.retry_interval = [] { return 30; };
    settings.enqueue = [this](CovedbUpdateKind kind, covedb::MonitorUpdateMsg update, CovedbOrigin origin) {
      if (lost_marks > 0 && kind == CovedbUpdateKind::kEndOfTransaction && lost_marks-- > 0) return;
      if (before_enqueue) before_enqueue(kind);
      EnqueueCovedbUpdate(workers, kind, std::move(update), origin);
    };
    handler = std::make_shared<CoveDbHandler>(std::move(settings));
    context = parts.Context(host, handler, workers);
    WorkerFactory factory;
    factory.options = [] { return WorkerOptions{.ls_msg_batch_interval = 60, .ls_msg_wait = 5}; };
    factory.ls_batcher = [this] { return std::make_unique<LogicalSwitchMsgTask::Batcher>(context); };
    factory.database_handler = [this](const std::string& name) {
      return std::make_unique<DbSvcTaskThread>(name, context);
    };
    workers.SetFactory(std::move(factory));
    EXPECT_EQ(workers.StartTaskThreads(), 0);
  }
  ~StoreRoadTest() override {
    workers.StopTaskThreads();
    workers.DeleteTaskThreadObjects();
  }

  void Connect() {
    client->StartAsync();
    handler->RegisterChannelStatus();
    handler->ConfigureMonitors();
    clock.RunFor(2s);
    ASSERT_TRUE(handler->channel_up());
  }
  void Watch(std::function<ModifyRequestMsg()> first = nullptr) {
    if (first) Change(first());
    Connect();
    host.TakeCalls();
    log.Clear();
  }
  /// What the controller reads: how far the agent has come, and which errors occurred.
  std::string Barrier() {
    const auto stored = Stored(ObjectType::PROCESSED_BARRIER);
    return stored.empty() ? "none" : stored.at(0);
  }
  std::string Status() {
    const auto stored = Stored(ObjectType::RUNTIME_STATUS);
    return stored.empty() ? "none" : stored.at(0);
  }

  FakeNetworks host;
  FakeHostParts parts;
  WorkerTable workers;
  /// Runs on the store client's thread.
  std::function<void(CovedbUpdateKind)> before_enqueue;
  std::atomic<int> lost_marks = 0;
  std::shared_ptr<CoveDbHandler> handler;
  std::shared_ptr<LogicalSwitchContext> context;
};

TEST_F(StoreRoadTest, AFullSyncSendsAllSwitchesInChunksThenIncrementsComeInBatches) {
  Change(PutLogicalSwitches({1, 250, 3, 1}, 5, true));
  Connect();
  EXPECT_THAT(host.TakeCalls(),
              ElementsAre("op 11 flag 0 zones 2 switches 100", "op 11 flag 1 zones 2 switches 100",
                          "op 11 flag 1 zones 1 switches 50"));
  EXPECT_THAT(host.networks(), SizeIs(250));
  EXPECT_EQ(host.networks()[LogicalSwitchUuid(250)], "ls-250:1");
  EXPECT_EQ(Barrier(), "value: 5");
  EXPECT_EQ(Status(), kNoError);

  Change(PutLogicalSwitches({250, 3, 3, 2}, 6, false));
  clock.RunFor(4s);
  EXPECT_THAT(host.TakeCalls(), IsEmpty()) << "the batch waits for a quiet period";
  EXPECT_EQ(Barrier(), "value: 5");
  Change(DeleteLogicalSwitches({1, 2, 1, 1}, 7));
  clock.RunFor(7s);
  const auto calls = host.TakeCalls();
  ASSERT_THAT(calls, SizeIs(2));
  EXPECT_EQ(calls[0],
            "deleteOpaqueNetwork(uuid=" + LogicalSwitchUuid(1) + ",uuid=" + LogicalSwitchUuid(2) + ")");
  EXPECT_THAT(calls[1], HasSubstr("createOpaqueNetwork(uuid=" + LogicalSwitchUuid(252) +
                                  "|name=ls-252|path=/infra/segments/ls-252|zone=" +
                                  sim::TransportZoneUuid(0) + "|revision=2"));
  EXPECT_EQ(Barrier(), "value: 7");
  EXPECT_THAT(host.networks(), SizeIs(250));
  EXPECT_EQ(handler->pending().size(), 0u);
}

// The controller waits for the barrier even when its transaction holds nothing for this host; the barrier
// must not overtake the switches.
TEST_F(StoreRoadTest, TheBarrierOfAnEmptyTransactionComesAfterTheQueuedSwitches) {
  Watch([] { return PutLogicalSwitches({1, 1, 1, 1}, 5, true); });
  Change(PutLogicalSwitches({0, 0, 1, 1}, 6, false));
  clock.RunFor(2s);
  EXPECT_EQ(Barrier(), "value: 6") << "nothing is queued";
  Change(PutLogicalSwitches({2, 1, 1, 1}, 7, false));
  clock.RunFor(2s);
  Change(PutLogicalSwitches({0, 0, 1, 1}, 8, false));
  clock.RunFor(2s);
  EXPECT_EQ(Barrier(), "value: 6");
  clock.RunFor(6s);
  EXPECT_EQ(Barrier(), "value: 8");
  EXPECT_THAT(host.networks(), SizeIs(2));
  // A switch of revision 0 is never applied, but its transaction is reported as done.
  Change(PutLogicalSwitches({3, 1, 1, 0}, 9, false));
  clock.RunFor(10s);
  EXPECT_EQ(Barrier(), "value: 9");
  EXPECT_EQ(handler->pending().size(), 0u);
}

TEST_F(StoreRoadTest, AFailedFullSyncIsReportedAndRetriedAndIncrementsWaitForIt) {
  Change(PutLogicalSwitches({1, 150, 1, 1}, 5, true));
  host.Fail("op 11", 1, 2, "host is busy");
  Connect();
  EXPECT_THAT(
      Status(),
      HasSubstr("realization_error { error_text: \"host is busy\" entity { first: 8132937977077710848"))
      << "the node goes first";
  EXPECT_EQ(Barrier(), "value: 5");
  Change(PutLogicalSwitches({151, 1, 1, 1}, 6, false));
  clock.RunFor(20s);
  EXPECT_THAT(host.TakeCalls(), SizeIs(2)) << "the increment is not applied by itself";
  EXPECT_TRUE(log.Contains("Re-scheduling Logical Switch Full sync with override"));
  clock.RunFor(20s);
  EXPECT_THAT(host.TakeCalls(), ElementsAre("op 11")) << "one timer, and a second failure";
  clock.RunFor(31s);
  EXPECT_THAT(host.TakeCalls(), SizeIs(2));
  EXPECT_THAT(host.networks(), SizeIs(151));
  EXPECT_EQ(Status(), kNoError);
  EXPECT_EQ(Barrier(), "value: 6");
  clock.RunFor(5min);
  EXPECT_THAT(host.TakeCalls(), IsEmpty()) << "no retry is left over";
}

// Each failure schedules the reading again; increments that keep arriving must not delay it without end.
TEST_F(StoreRoadTest, AStreamOfIncrementsDoesNotStarveTheFullSync) {
  Change(PutLogicalSwitches({1, 1, 1, 1}, 1, true));
  host.Fail("op 11", 0, 1, "no");
  Connect();
  for (uint32_t i = 2; i < 20; ++i) {
    Change(PutLogicalSwitches({i, 1, 1, 1}, i, false));
    clock.RunFor(10s);
  }
  EXPECT_THAT(host.networks(), SizeIs(testing::Gt(10u)));
}

TEST_F(StoreRoadTest, AFullSyncOfNoSwitchesRemovesThoseOfBefore) {
  host.answers["ping"] = "ready";
  std::string out;
  host.InvokeCommand("createOpaqueNetwork(uuid=u|name=stale|path=|zone=|revision=1)", "ok", &out);
  Watch([] { return PutLogicalSwitches({0, 0, 1, 1}, 5, true); });
  EXPECT_THAT(host.networks(), IsEmpty());
  EXPECT_EQ(Barrier(), "value: 5");
}

TEST_F(StoreRoadTest, ARefusedSwitchIsReportedAndRetriedUntilItIsRealized) {
  Watch([] { return PutLogicalSwitches({1, 2, 1, 1}, 5, true); });
  host.Fail("createOpaqueNetwork", 0, 2, "no space");
  host.Fail("deleteOpaqueNetwork", 0, 2, "in use");
  Change(PutLogicalSwitches({3, 1, 1, 1}, 6, false));
  Change(DeleteLogicalSwitches({1, 1, 1, 1}, 7));
  clock.RunFor(10s);
  EXPECT_THAT(Status(), HasSubstr("error_text: \"no space\""));
  EXPECT_EQ(handler->pending().size(), 2u);
  EXPECT_EQ(Barrier(), "value: 7");
  clock.RunFor(40s);
  EXPECT_EQ(handler->pending().size(), 2u) << "a second time";
  clock.RunFor(40s);
  EXPECT_EQ(handler->pending().size(), 0u);
  EXPECT_EQ(host.networks(), (std::map<std::string, std::string>{{LogicalSwitchUuid(2), "ls-2:1"},
                                                                 {LogicalSwitchUuid(3), "ls-3:1"}}))
      << "the removal too, of which the store holds nothing any longer";
  EXPECT_EQ(Status(), kNoError);
  host.TakeCalls();
  clock.RunFor(5min);
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

// A switch that changes again while its first change is carried out stays pending until the second change is
// done.
TEST_F(StoreRoadTest, ARealizedRevisionDoesNotForgetALaterRemoval) {
  Watch([] { return PutLogicalSwitches({1, 1, 1, 1}, 5, true); });
  host.on_call = [this](const std::string& command) {
    if (command.rfind("createOpaqueNetwork(", 0) != 0) return;
    host.on_call = nullptr;
    Change(DeleteLogicalSwitches({2, 1, 1, 1}, 7));
    clock.RunFor(1s);
  };
  host.Fail("deleteOpaqueNetwork", 0, 1, "in use");
  Change(PutLogicalSwitches({2, 1, 1, 1}, 6, false));
  clock.RunFor(1min);
  EXPECT_THAT(host.networks(), SizeIs(1));
  EXPECT_EQ(handler->pending().size(), 0u);
}

TEST_F(StoreRoadTest, AStoreThatStartsAgainFromNothingIsAnsweredWithItsOwnBarriers) {
  Watch([] { return PutLogicalSwitches({1, 3, 1, 1}, 1000, true); });
  Change(PutLogicalSwitches({4, 1, 1, 1}, 1001, false));
  clock.RunFor(2s);  // gathered, with its barrier
  StartStore();
  clock.RunFor(20s);
  EXPECT_EQ(Barrier(), "none") << "nothing has been asked yet";
  Change(PutLogicalSwitches({7, 1, 1, 1}, 2, true));
  clock.RunFor(20s);
  EXPECT_EQ(Barrier(), "value: 2");
  EXPECT_THAT(host.networks(), SizeIs(1));
  Change(PutLogicalSwitches({8, 1, 1, 1}, 3, false));
  clock.RunFor(20s);
  EXPECT_EQ(Barrier(), "value: 3");
}

// Updates gathered before a full sync are older than it: a creation among them must not bring back a removed
// switch.
TEST_F(StoreRoadTest, AGatheredBatchDoesNotOutliveAFullSync) {
  Watch([] { return PutLogicalSwitches({1, 3, 1, 1}, 5, true); });
  Change(PutLogicalSwitches({4, 1, 1, 1}, 6, false));
  clock.RunFor(2s);
  network.Break(kEndpoint);
  Change(DeleteLogicalSwitches({4, 1, 1, 1}, 7));
  clock.RunFor(1min);
  EXPECT_THAT(host.networks(), SizeIs(3));
  EXPECT_THAT(host.TakeCalls(), ElementsAre(HasSubstr("op 11 flag 0")));
  EXPECT_EQ(Barrier(), "value: 7");
}

TEST_F(StoreRoadTest, AReconnectMakesAFullSyncAndASecondConfigureDoesNot) {
  Watch([] { return PutLogicalSwitches({1, 3, 1, 1}, 5, true); });
  handler->ConfigureMonitors();
  clock.RunFor(20s);
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  network.Break(kEndpoint);
  clock.RunFor(20s);
  EXPECT_THAT(host.TakeCalls(), SizeIs(1));
  handler->FlushDesiredConfig();
  clock.RunFor(20s);
  Change(PutLogicalSwitches({7, 1, 1, 1}, 6, true));
  clock.RunFor(20s);
  EXPECT_THAT(host.TakeCalls(), IsEmpty()) << "nothing is watched";
  handler->ConfigureMonitors();
  clock.RunFor(20s);
  EXPECT_THAT(host.TakeCalls(), ElementsAre("op 11 flag 0 zones 1 switches 1"));
}

// The store repeats no type that another part still watches: the barrier alone must not end a reading.
TEST_F(StoreRoadTest, ASecondConfigureReadsAllAlthoughOthersWatchTheBarrier) {
  constexpr uint32_t kOther = 77;
  const auto barrier = covedb::MonitorStatementsFor({ObjectType::BARRIER, ObjectType::TRANSPORT_NODE_CONFIG});
  ASSERT_TRUE(client->ConfigureMonitor(barrier, {}, kOther, covedb::kDefaultVDb));
  Watch([] { return PutLogicalSwitches({1, 3, 1, 1}, 5, true); });
  handler->FlushDesiredConfig();
  clock.RunFor(20s);
  Change(PutLogicalSwitches({7, 1, 1, 1}, 6, true));
  clock.RunFor(20s);
  handler->ConfigureMonitors();
  clock.RunFor(2min);
  EXPECT_THAT(host.TakeCalls(), ElementsAre("op 11 flag 0 zones 1 switches 1"));
  EXPECT_EQ(Barrier(), "value: 6");
}

TEST_F(StoreRoadTest, AStreamThatOthersOpenedMakesOneFullSync) {
  constexpr uint32_t kOther = 77;
  ASSERT_TRUE(client->ConfigureMonitor(covedb::MonitorStatementsFor({ObjectType::BARRIER}), {}, kOther,
                                       covedb::kDefaultVDb));
  Change(PutLogicalSwitches({1, 3, 1, 1}, 5, true));
  client->StartAsync();
  clock.RunFor(20s);
  Connect();
  clock.RunFor(2min);
  EXPECT_THAT(host.TakeCalls(), ElementsAre("op 11 flag 0 zones 1 switches 3"));
  EXPECT_EQ(Barrier(), "value: 5");
}

covedb::MonitorUpdateMsg Update(ObjectType type, const google::protobuf::Message& object, int operation) {
  covedb::MonitorUpdateMsg message;
  message.set_object_type(type);
  message.set_object(object.SerializeAsString());
  orlane::zem::covedb::VifStateOpMsg op;
  if (operation != 0) op.set_operation(operation);
  message.set_operation(op.SerializeAsString());
  return message;
}

// The node's removal clears the host's networks; neither gathered nor failed updates may bring any of them
// back.
TEST_F(StoreRoadTest, AFlushVoidsGatheredAndFailedUpdates) {
  Watch([] { return PutLogicalSwitches({1, 1, 1, 1}, 5, true); });
  host.Fail("createOpaqueNetwork", 0, 1, "no space");
  Change(PutLogicalSwitches({2, 1, 1, 1}, 6, false));
  clock.RunFor(10s);
  EXPECT_EQ(handler->pending().size(), 1u);
  Change(PutLogicalSwitches({3, 1, 1, 1}, 7, false));
  clock.RunFor(2s);
  host.TakeCalls();
  handler->FlushDesiredConfig();
  clock.RunFor(5min);
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  Change(PutLogicalSwitches({9, 1, 1, 1}, 8, true));
  clock.RunFor(1min);
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  handler->ResumeMonitors();
  clock.RunFor(1min);
  EXPECT_THAT(host.TakeCalls(), ElementsAre("op 11 flag 0 zones 1 switches 1"));
  handler->ResumeMonitors();
  clock.RunFor(1min);
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

// A flush at each point of the path: after the worker has gathered updates, and after a full reading was
// requested.
TEST_F(StoreRoadTest, AFlushVoidsUpdatesThatTheWorkerHasGathered) {
  Watch([] { return PutLogicalSwitches({1, 2, 1, 1}, 5, true); });
  std::atomic<bool> flushed = false;
  before_enqueue = [&](CovedbUpdateKind kind) {
    if (kind != CovedbUpdateKind::kEndOfTransaction || flushed.exchange(true)) return;
    workers.AddTask(Worker::kDatabaseHandler,
                    std::make_unique<FunctionTask>([this] { handler->FlushDesiredConfig(); }));
  };
  network.Break(kEndpoint);  // everything is read again
  clock.RunFor(1min);
  EXPECT_TRUE(flushed);
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  EXPECT_TRUE(log.Contains("what the store told before its flush is dropped"));
  EXPECT_EQ(handler->pending().size(), 0u);
}

TEST_F(StoreRoadTest, AFlushVoidsAReadingThatIsUnderWay) {
  Change(PutLogicalSwitches({1, 2, 1, 1}, 5, true));
  host.Fail("op 11", 0, 1, "host is busy");
  Connect();
  daemon->faults().SetDelay("Get", 10s);
  clock.RunFor(31s);  // the reading has been requested
  handler->FlushDesiredConfig();
  host.TakeCalls();
  clock.RunFor(1min);
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  EXPECT_TRUE(log.Contains("the answer of the store is dropped"));
}

// The connection is lost between the switches of a transaction and its mark.
TEST_F(StoreRoadTest, ATransactionThatIsCutIsNotPartOfTheNextReading) {
  Watch([] { return PutLogicalSwitches({1, 1, 1, 1}, 5, true); });
  lost_marks = 1;
  Change(PutLogicalSwitches({100, 5, 1, 1}, 6, false));
  clock.RunFor(1s);
  EXPECT_EQ(lost_marks, 0);
  StartStore();
  Change(PutLogicalSwitches({7, 1, 1, 1}, 7, true));
  clock.RunFor(20s);
  EXPECT_EQ(host.networks(), (std::map<std::string, std::string>{{LogicalSwitchUuid(7), "ls-7:1"}}));
  EXPECT_TRUE(log.Contains("a transaction that was cut after 5 entities is dropped"));
}

TEST_F(StoreRoadTest, TheStateOfAVifGoesToItsRealizer) {
  const std::string uuid = "00000000-0000-0001-0000-000000000002";
  orlane::zem::covedb::VifStateMsg vif;
  vif.mutable_vif_id()->set_first(1);
  vif.mutable_vif_id()->set_second(2);
  Watch();
  DbSvcTaskThread worker("w", context);
  worker.RealizeVifState(Update(ObjectType::VIF_STATE, vif, 7));
  parts.vifs_known = false;
  worker.RealizeVifState(Update(ObjectType::VIF_STATE, vif, 12));
  worker.RealizeVifState(Update(ObjectType::VIF_STATE, vif, 8));
  worker.RealizeVifState(Update(ObjectType::VIF_STATE, vif, 0));
  worker.RealizeVifState(Update(ObjectType::VIF_STATE, orlane::zem::covedb::VifStateMsg(), 7));
  EXPECT_THAT(std::exchange(parts.vif_events, {}),
              ElementsAre("process " + uuid, "process " + uuid, "remove " + uuid));
  EXPECT_EQ(log.Count("Invalid VifStateMsg received. Skipping"), 2u);
  EXPECT_EQ(log.Count("VifRequest does not exist for VIF [" + uuid + "]. Skipping"), 1u);
  // The same state, sent by the store itself.
  ModifyRequestMsg request;
  auto& put = *request.add_modify_msg()->mutable_put_msg();
  put.set_object_type(ObjectType::VIF_STATE);
  put.set_object(vif.SerializeAsString());
  Change(request);
  clock.RunFor(1s);
  EXPECT_THAT(parts.vif_events, ElementsAre("process " + uuid));
}

TEST_F(StoreRoadTest, AStoredConfigurationIsAnsweredByItsHeaders) {
  FakeSender manager;
  context->sender = &manager;
  BusHeader header;
  header.correlation_id = "c";
  header.reply_to = "r";
  const std::vector<uint8_t> bytes = header.Encode();
  orlane::zem::covedb::RealizedHostConfigMsg stored;
  stored.mutable_id()->set_first(1);
  stored.set_error_code(8700);
  DbSvcTaskThread worker("w", context);
  worker.ReplyRealizedHostConfig(Update(ObjectType::REALIZED_HOST_CONFIG, stored, 7));
  EXPECT_THAT(manager.Take(), IsEmpty()) << "whose answer it is cannot be known without headers";
  stored.mutable_amqp_header()->set_header(bytes.data(), bytes.size());
  worker.ReplyRealizedHostConfig(Update(ObjectType::REALIZED_HOST_CONFIG, stored, 0));
  worker.ReplyRealizedHostConfig(Update(ObjectType::REALIZED_HOST_CONFIG, stored, 8));
  EXPECT_THAT(manager.Take(), IsEmpty());
  EXPECT_TRUE(log.Contains("Received RealizedHostConfigMsg with invalid OpMsg"));
  EXPECT_TRUE(log.Contains("Skipping Delete Monitor Cb of RealizedHostConfigMsg"));
  worker.ReplyRealizedHostConfig(Update(ObjectType::REALIZED_HOST_CONFIG, stored, 7));
  EXPECT_THAT(manager.Take(),
              ElementsAre("HostConfig c r id: \"00000000-0000-0001-0000-000000000000\" error_code: 8700"));
}

TEST_F(StoreRoadTest, BadUpdatesAreLoggedAndHaveNoEffect) {
  Watch([] { return PutLogicalSwitches({1, 1, 1, 1}, 5, true); });
  daemon->store().streams().SetGarbage(1);
  Change(PutLogicalSwitches({2, 1, 1, 1}, 6, false));
  clock.RunFor(10s);
  EXPECT_TRUE(log.Contains("an object of type 127 does not parse, skipped"));
  EXPECT_EQ(Barrier(), "value: 6");
  handler->SetLsRealizationViaCcp(false);
  Change(PutLogicalSwitches({3, 1, 1, 1}, 7, false));
  clock.RunFor(10s);
  EXPECT_TRUE(log.Contains("LS Realization Via CCP Disabled"));
  EXPECT_THAT(host.networks(), SizeIs(1));
}

}  // namespace
}  // namespace zem::zema
