// How a batch of logical switches is carried out: order of commands, chunks, acknowledgements by reply-to.

#include "app/zema/lswitch/covedb_update_task.h"
#include "app/zema/lswitch/logical_switch_ack_task.h"
#include "app/zema/lswitch/logical_switch_batcher.h"
#include "app/zema/lswitch/logical_switch_full_sync_task.h"
#include "platform/core/thread.h"
#include "proto/covedb/runtime_objects.pb.h"
#include "tests/app/zema/covedb/store_fixture.h"
#include "tests/app/zema/lswitch/fake_host_parts.h"
#include "tests/app/zema/lswitch/fake_networks.h"
#include "tests/app/zema/lswitch/fake_sender.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::LogicalSwitchMsg;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string kA = "00000000-0000-000a-0000-000000000000";
const std::string kB = "00000000-0000-000b-0000-000000000000";
const std::string kC = "00000000-0000-000c-0000-000000000000";

enum Operation : uint32_t { kSet = 0, kUpdate = 1, kClear = 2 };

LogicalSwitchMsg Message(const std::string& uuid, int revision, Operation operation = kSet,
                         const std::string& zone = "z1") {
  LogicalSwitchMsg message;
  auto& info = *message.add_logical_switch_info();
  info.set_logical_switch_id(uuid);
  info.set_revision(revision);
  info.set_operation(operation);
  info.set_transport_zone_id(zone);
  info.set_name("n");
  info.set_path("/p");
  return message;
}

class BatcherTest : public StoreFixture, public TaskQueues {
 protected:
  BatcherTest() {
    CoveDbHandler::Settings settings;
    settings.client = client;
    settings.timers = &agent.timers();
    settings.retry_interval = [] { return 30; };
    settings.enqueue = [this](CovedbUpdateKind kind, covedb::MonitorUpdateMsg, const CovedbOrigin&) {
      kinds.push_back(kind);
    };
    handler = std::make_shared<CoveDbHandler>(std::move(settings));
    client->StartAsync();
    clock.RunFor(1s);
    context = parts.Context(host, handler, *this);
    batcher = std::make_unique<LogicalSwitchMsgTask::Batcher>(context);
  }
  ~BatcherTest() override { handler.reset(); }

  bool AddTask(Worker worker, std::unique_ptr<Runnable> task) override {
    if (worker != Worker::kLsBatchAck) return false;
    acks->AddTask(task.get());
    return true;
  }
  void ClearTasks(Worker) override {}
  bool Has(Worker worker) override { return worker == Worker::kLsBatchAck && acks != nullptr; }

  bool Add(const LogicalSwitchMsg& message, const std::string& reply_to = "mp", uint64_t barrier = 0) {
    MpaMessageSender* const sender = reply_to == "covedb" ? nullptr : &manager;
    const auto task = LogicalSwitchMsgTask::CreateTask(*context, message, sender, reply_to, barrier);
    if (task) batcher->AddTask(task.get());
    return task != nullptr;
  }
  void Barrier(uint64_t barrier) {
    CovedbUpdateTask task(handler, barrier, context->fence.epoch());
    batcher->UpdateBatcher(&task);
    if (batcher->Count() == 0) task.Run();
  }
  void Run() {
    batcher->Run();
    batcher->Reset();
    clock.RunFor(1s);
  }
  std::vector<std::string> Barriers() { return Stored(ObjectType::PROCESSED_BARRIER); }
  static std::string Create(const std::string& uuid, int revision) {
    return "uuid=" + uuid + "|name=n|path=/p|zone=z1|revision=" + std::to_string(revision);
  }
  static std::string Acked(const std::string& uuid, int revision) {
    return "logical_switch_info { revision: " + std::to_string(revision) + " logical_switch_id: \"" + uuid +
           "\" }";
  }

  FakeHostParts parts{"host-1"};
  FakeNetworks host;
  FakeSender manager;
  LogicalSwitchBatchMsgTask* acks = nullptr;
  std::vector<CovedbUpdateKind> kinds;
  std::shared_ptr<CoveDbHandler> handler;
  std::shared_ptr<LogicalSwitchContext> context;
  std::unique_ptr<LogicalSwitchMsgTask::Batcher> batcher;
};

TEST_F(BatcherTest, TheHighestRevisionOfASwitchReachesTheHost) {
  for (const int revision : {5, 3, 5}) EXPECT_TRUE(Add(Message(kA, revision)));
  Run();
  EXPECT_THAT(host.TakeCalls(), ElementsAre("createOpaqueNetwork(" + Create(kA, 5) + ")"));
  EXPECT_THAT(manager.Take(), ElementsAre("LogicalSwitch  mp " + Acked(kA, 5)));
  // Of equal revisions in one message, the first one counts.
  LogicalSwitchMsg message = Message(kA, 5);
  *message.add_logical_switch_info() = Message(kA, 5).logical_switch_info(0);
  message.mutable_logical_switch_info(1)->set_name("later");
  EXPECT_TRUE(Add(message));
  EXPECT_TRUE(log.Contains("skipping LS [" + kA + "] stale revision [5] update (currently 5)"));
  Run();
  EXPECT_THAT(host.TakeCalls(), ElementsAre("createOpaqueNetwork(" + Create(kA, 5) + ")"));
}

TEST_F(BatcherTest, ARemovalInABatchWinsOverItsCreation) {
  EXPECT_TRUE(Add(Message(kA, 5)));
  EXPECT_TRUE(Add(Message(kA, 6, kClear)));
  EXPECT_TRUE(Add(Message(kB, 1, kUpdate)));
  EXPECT_EQ(batcher->Count(), 2);
  Run();
  EXPECT_THAT(host.TakeCalls(), ElementsAre("deleteOpaqueNetwork(uuid=" + kA + ")",
                                            "createOpaqueNetwork(" + Create(kB, 1) + ")"));
  EXPECT_TRUE(
      log.Contains("[ApplyLsInCorvd] Skip LS [" + kA + ":5] because it was already deleted in the batch."));
  EXPECT_THAT(manager.Take(),
              ElementsAre("LogicalSwitch  mp " + Acked(kA, -1), "LogicalSwitch  mp " + Acked(kB, 1)));
  EXPECT_TRUE(Add(Message(kA, 7)));
  Run();
  EXPECT_THAT(host.TakeCalls(), ElementsAre("createOpaqueNetwork(" + Create(kA, 7) + ")"))
      << "only in that batch";
}

TEST_F(BatcherTest, AnUpdateThatIsNotForThisHostOrLacksAFieldIsRefused) {
  const auto without = [](void (*change)(LogicalSwitchMsg::LogicalSwitchInfoMsg*)) {
    LogicalSwitchMsg message = Message(kA, 5);
    change(message.mutable_logical_switch_info(0));
    return message;
  };
  EXPECT_FALSE(Add(without([](auto* info) { info->add_target_host_id("host-2"); })));
  EXPECT_TRUE(log.Contains("not a targeted hosts for this LS update, bail out without ACK"));
  EXPECT_FALSE(Add(without([](auto* info) { info->clear_logical_switch_id(); })));
  EXPECT_TRUE(log.Contains("MPA42037"));
  EXPECT_FALSE(Add(without([](auto* info) { info->clear_revision(); })));
  EXPECT_TRUE(log.Contains("MPA42035"));
  EXPECT_FALSE(Add(without([](auto* info) { info->clear_transport_zone_id(); })));
  EXPECT_TRUE(log.Contains("MPA42036"));
  EXPECT_FALSE(Add(Message(kA, 0))) << "not above what a new entry has";
  EXPECT_EQ(log.Count("no LS update is detected in the LogicalSwitchMsg, skipped"), 5u);
  EXPECT_TRUE(Add(without([](auto* info) {
    info->add_target_host_id("host-2");
    info->add_target_host_id("host-1");
  })));
  context = parts.Context(host, handler, *this, false);
  EXPECT_FALSE(Add(Message(kA, 5)));
}

TEST_F(BatcherTest, ChunksEndAtTheLimitAndAnEmptyRestSendsNothing) {
  RealizationOptions options;
  options.opaque_network_apply_max = 2;
  options.opaque_network_delete_max = 1;
  parts.options.Replace(options);
  for (const std::string& uuid : {kA, kB}) {
    Add(Message(uuid, 1));
    Add(Message("d" + uuid, 1, kClear));
  }
  Run();
  EXPECT_THAT(host.TakeCalls(),
              ElementsAre("deleteOpaqueNetwork(uuid=d" + kA + ")", "deleteOpaqueNetwork(uuid=d" + kB + ")",
                          "createOpaqueNetwork(" + Create(kA, 1) + "," + Create(kB, 1) + ")"));
  EXPECT_TRUE(log.Contains("[ApplyLsInCorvd] sending chunk of [2] to zemaLum ..."));
  for (const std::string& uuid : {kA, kB, kC}) Add(Message(uuid, 1));
  Run();
  EXPECT_THAT(host.TakeCalls(), ElementsAre(HasSubstr(kB), "createOpaqueNetwork(" + Create(kC, 1) + ")"));
}

TEST_F(BatcherTest, AZoneOnAKlnSwitchNeedsNoNetworkButAnAnswer) {
  Add(Message(kA, 4, kSet, "kln"));
  Run();
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  EXPECT_TRUE(log.Contains("[ApplyLsInCorvd] No OpaqueNetworks to configure. Sending an ack for [1] LS"));
  EXPECT_THAT(manager.Take(), ElementsAre("LogicalSwitch  mp " + Acked(kA, 4)));
}

// The acknowledgements of the store must not go to the last sender of a batch, nor those of the manager to
// the store.
TEST_F(BatcherTest, AMixedBatchIsAnsweredToTheStoreAndTheManager) {
  handler->pending().AddPendingLs(kA, {});
  Add(Message(kA, 2), "covedb", 9);
  Add(Message(kB, 3), "mp-1");
  Add(Message(kC, 4), "mp-2");
  Run();
  EXPECT_THAT(manager.Take(),
              ElementsAre("LogicalSwitch  mp-1 " + Acked(kB, 3), "LogicalSwitch  mp-2 " + Acked(kC, 4)));
  EXPECT_THAT(Barriers(), ElementsAre("value: 9"));
  EXPECT_THAT(Stored(ObjectType::RUNTIME_STATUS), ElementsAre("status: 5"));
  EXPECT_TRUE(log.Contains("sent a ACK with [1] LS to MP"));
}

TEST_F(BatcherTest, WithAnAckWorkerTheManagersAnswersAreGathered) {
  LogicalSwitchBatchMsgTask worker;
  worker.Reset();
  acks = &worker;
  Add(Message(kA, 2));
  Add(Message(kB, 3, kClear));
  Add(Message(kC, 4), "covedb", 9);
  Run();
  EXPECT_THAT(manager.Take(), IsEmpty());
  EXPECT_EQ(worker.Count(), 1);
  worker.Run();
  EXPECT_THAT(manager.Take(),
              ElementsAre("LogicalSwitch  mp logical_switch_info { revision: 2 logical_switch_id: \"" + kA +
                          "\" operation: 3 } logical_switch_info { revision: -1 logical_switch_id: \"" + kB +
                          "\" operation: 3 }"));
  worker.Reset();
  worker.Run();
  EXPECT_THAT(manager.Take(), IsEmpty());
}

TEST_F(BatcherTest, ABarrierRunsAtOnceOrGoesWithTheBatch) {
  Barrier(4);
  clock.RunFor(1s);
  EXPECT_THAT(Barriers(), ElementsAre("value: 4"));
  Add(Message(kA, 2), "covedb", 5);
  Barrier(6);
  clock.RunFor(1s);
  EXPECT_THAT(Barriers(), ElementsAre("value: 4"));
  Run();
  EXPECT_THAT(Barriers(), ElementsAre("value: 6"));
  // A batch with updates of the manager alone writes nothing to the store.
  Add(Message(kB, 2));
  Run();
  EXPECT_THAT(Barriers(), ElementsAre("value: 6"));
  Add(Message(kB, 3));
  Barrier(7);
  Run();
  EXPECT_THAT(Barriers(), ElementsAre("value: 7"));
  LogicalSwitchAckTask other(kA, 1, "mp", &manager);
  batcher->UpdateBatcher(&other);
  EXPECT_TRUE(log.Contains("MPA44098"));
}

// Only with the last chunk is everything up to the barrier realized.
TEST_F(BatcherTest, TheBarrierGoesOutWithTheLastChunk) {
  RealizationOptions options;
  options.opaque_network_apply_max = 1;
  parts.options.Replace(options);
  std::vector<std::vector<std::string>> seen;
  host.on_call = [&](const std::string&) {
    clock.RunFor(1s);
    seen.push_back(Barriers());
  };
  Add(Message(kA, 2), "covedb", 9);
  Add(Message(kB, 2), "covedb", 9);
  Add(Message(kC, 2), "mp");
  Run();
  EXPECT_THAT(seen, ElementsAre(IsEmpty(), IsEmpty(), ElementsAre("value: 9")));
}

TEST_F(BatcherTest, AFailureIsNotAcknowledgedAndTheStoresSwitchesAreReadAgain) {
  host.Fail("createOpaqueNetwork", 0, 2, "no space");
  Add(Message(kA, 2), "covedb", 9);
  Run();
  EXPECT_THAT(
      Stored(ObjectType::RUNTIME_STATUS),
      ElementsAre("status: 5 realization_error { error_text: \"no space\" entity { first: 10 second: 0 } }"));
  EXPECT_THAT(Barriers(), ElementsAre("value: 9"));
  Add(Message(kB, 2));
  Run();
  EXPECT_THAT(manager.Take(), IsEmpty());
  parts.state.del_zem_running = true;
  host.TakeCalls();
  Add(Message(kB, 3));
  Run();
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  EXPECT_THAT(manager.Take(), IsEmpty());
  EXPECT_TRUE(log.Contains("to corvd because del zem is running"));
}

// Such a name would change the structure of the command's list.
TEST_F(BatcherTest, ANameThatWouldEndItsPlaceInTheListIsRefusedAlone) {
  LogicalSwitchMsg message = Message(kA, 2);
  message.mutable_logical_switch_info(0)->set_name("x,uuid=" + kC);
  Add(message, "covedb", 9);
  Run();
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  EXPECT_THAT(Stored(ObjectType::RUNTIME_STATUS), ElementsAre(HasSubstr("would end its place in the list")));
  EXPECT_THAT(Barriers(), ElementsAre("value: 9"));
  Add(message, "covedb", 10);
  message.mutable_logical_switch_info(0)->set_name("a|b");
  message.mutable_logical_switch_info(0)->set_logical_switch_id(kC);
  Add(message, "covedb", 10);
  Add(Message(kB, 2), "covedb", 10);
  Add(Message(kB + ",uuid=" + kC, 2, kClear), "mp");
  Run();
  EXPECT_THAT(host.TakeCalls(), ElementsAre("createOpaqueNetwork(" + Create(kB, 2) + ")"));
}

TEST_F(BatcherTest, AFullSyncVoidsEarlierUpdates) {
  const auto before = LogicalSwitchMsgTask::CreateTask(*context, Message(kA, 2), nullptr, "covedb", 9);
  Add(Message(kB, 2), "covedb", 9);
  context->fence.Supersede();
  batcher->AddTask(before.get());
  Add(Message(kC, 2), "covedb", 3);
  Run();
  EXPECT_THAT(host.TakeCalls(), ElementsAre("createOpaqueNetwork(" + Create(kC, 2) + ")"));
  Add(Message(kB, 2), "covedb", 9);
  context->fence.Supersede();
  Run();
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

TEST_F(BatcherTest, AFullSyncOfTheManagerVoidsItsEarlierUpdatesAndGoesFirst) {
  orlane::zem::switching::LogicalSwitchBulkMsg bulk;
  bulk.set_continuation_flag(0);
  Add(Message(kA, 2), "mp");
  Barrier(4);
  auto list =
      std::make_unique<LogicalSwitchFullSyncTask>(context, nullptr, "c", "r", bulk.SerializeAsString());
  Add(Message(kB, 2), "mp");
  bulk.set_continuation_flag(1);
  auto piece =
      std::make_unique<LogicalSwitchFullSyncTask>(context, nullptr, "c", "r", bulk.SerializeAsString());
  NativeThread batch(NativeThread::Options{}, [this] { Run(); });
  list->Run();
  EXPECT_THAT(host.TakeCalls(), ElementsAre("op 11 flag 0 zones 0 switches 0"));
  piece->Run();
  batch.Join();
  EXPECT_THAT(host.TakeCalls(),
              ElementsAre("op 11 flag 1 zones 0 switches 0", "createOpaqueNetwork(" + Create(kB, 2) + ")"));
  EXPECT_THAT(Barriers(), ElementsAre("value: 4"));
  // The store sends each update only once, and waits for its barrier.
  Add(Message(kA, 2), "covedb", 5);
  const auto told = LogicalSwitchMsgTask::CreateTask(*context, Message(kC, 2), nullptr, "covedb", 6);
  LogicalSwitchFullSyncTask(context, nullptr, "c", "r", "").Run();
  host.TakeCalls();
  batcher->AddTask(told.get());
  Run();
  EXPECT_THAT(host.TakeCalls(),
              ElementsAre("createOpaqueNetwork(" + Create(kA, 2) + "," + Create(kC, 2) + ")"));
  EXPECT_THAT(Barriers(), ElementsAre("value: 6"));
  // Neither a full sync that is never carried out nor one that is left when the realization ends blocks the
  // batcher.
  list = std::make_unique<LogicalSwitchFullSyncTask>(context, nullptr, "c", "r", "");
  list.reset();
  piece = std::make_unique<LogicalSwitchFullSyncTask>(context, nullptr, "c", "r", "");
  context->fence.Close();
  Add(Message(kC, 2), "mp");
  Run();
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

}  // namespace
}  // namespace zem::zema
