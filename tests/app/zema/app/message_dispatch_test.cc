#include "app/zema/app/message_dispatch.h"

#include <gtest/gtest.h>

#include <set>

#include "app/zema/app/refused_request.h"
#include "app/zema/workers/worker_table.h"
#include "framework/tasks/function_task.h"
#include "framework/tasks/task_thread.h"
#include "platform/core/condition.h"
#include "platform/timeline/operation.h"
#include "proto/switching/switching.pb.h"
#include "tests/app/zema/lswitch/fake_sender.h"
#include "tests/support/log_capture.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;
using test::LogCapture;

constexpr const char* kPrefix = "com.orlane.zem.switching.";

class NoBatch : public BatchRunnable {
 public:
  void Run() override {}
  void AddTask(Runnable*) override {}
  void Reset() override {}
  long Count() const override { return 0; }
};

class MessageDispatchTest : public ::testing::Test, public ManagerRequests {
 protected:
  MessageDispatchTest() {
    WorkerFactory factory;
    factory.options = [] { return WorkerOptions{0, 0, 60, 5, false}; };
    factory.ls_batcher = [] { return std::make_unique<NoBatch>(); };
    factory.database_handler = [](const std::string& name) { return std::make_unique<TaskThread>(name); };
    workers_.SetFactory(std::move(factory));
    EXPECT_EQ(workers_.StartTaskThreads(), 0);
  }

  ~MessageDispatchTest() override {
    workers_.StopTaskThreads();
    workers_.DeleteTaskThreadObjects();
    timeline::Clear();
  }

  // How the operations ended that were begun so far: "ID error", or "ID" and what they are else.
  static std::set<std::string> Ends() {
    std::set<std::string> ends;
    for (const timeline::OperationPtr& each : timeline::Find({}, SIZE_MAX)) {
      const timeline::OperationReading reading = each->Read();
      ends.insert(reading.keys.at(0) + ": " +
                  (reading.state == timeline::State::kUnderWay ? "under way" : reading.error));
    }
    return ends;
  }

  std::unique_ptr<Runnable> HostConfig(const RequestOrigin& origin,
                                       switching::HostConfigMsg message) override {
    return Task("host config " + origin.correlation_id + " " + origin.reply_to + " " + message.revision());
  }
  std::unique_ptr<Runnable> LogicalSwitch(const RequestOrigin&, const switching::LogicalSwitchMsg&) override {
    made_.push_back("logical switch");
    return nullptr;
  }
  std::unique_ptr<Runnable> LogicalSwitchFullSync(const RequestOrigin&, std::string bytes) override {
    return Task("full sync " + std::to_string(bytes.size()));
  }
  std::unique_ptr<Runnable> Restore(const RequestOrigin&, const switching::ChecksumMsg& message) override {
    return Task("restore " + message.id());
  }
  std::unique_ptr<Runnable> HostProfile(const RequestOrigin&, const switching::HostProfileMsg&) override {
    return nullptr;
  }
  std::unique_ptr<Runnable> MaintenanceMode(const RequestOrigin&,
                                            const switching::MaintenanceModeConfigMsg&) override {
    return nullptr;
  }
  std::unique_ptr<Runnable> VtepRecovery(const RequestOrigin&,
                                         const switching::VTEPRecoveryRequestMsg&) override {
    return nullptr;
  }
  std::unique_ptr<Runnable> VtepAdminState(const RequestOrigin&,
                                           const switching::VTEPAdminStateMgmtRequestMsg&) override {
    return nullptr;
  }
  void SyncVtepAddresses(const RequestOrigin&, const switching::VtepIPSyncMsg&) override {}
  void DetachVif(const switching::VifAttachmentMsg& vif) override {
    made_.push_back("detach " + vif.vif_id());
  }
  void RestoreVif(const switching::VifAttachmentMsg& vif) override {
    made_.push_back("restore " + vif.vif_id());
  }
  void VifResult(const std::string& rpc_id, std::unique_ptr<PortAttached> result) override {
    made_.push_back("vif " + rpc_id);
    result_ = std::move(result);
  }
  void AcknowledgeHostConfig(const std::string& reply_to, const switching::HostConfigAckMsg& ack) override {
    made_.push_back("ack " + reply_to + " " + ack.ShortDebugString());
  }
  void RefuseHostProfile(const RequestOrigin&, const std::string& error) override {
    made_.push_back("refused " + error);
  }
  void Refuse(const RequestOrigin& origin, std::string_view type, std::string payload,
              const std::string& reason) override {
    AnswerRefused({origin, std::string(type), std::move(payload), reason, 3});
  }

  std::unique_ptr<Runnable> Task(const std::string& text) {
    return std::make_unique<FunctionTask>([this, text] {
      const std::lock_guard lock(mutex_);
      ran_.push_back(text);
      changed_.NotifyAll();
    });
  }

  void Receive(const std::string& type, const std::string& payload) {
    dispatch_.ProcessReceiveMessages("session:7", type, payload, "corr", "reply");
  }
  void Receive(const char* type, const google::protobuf::Message& message) {
    Receive(std::string(kPrefix) + type, message.SerializeAsString());
  }

  // The tasks that the workers have run; waits until there are `count` of them.
  std::set<std::string> Ran(size_t count) {
    std::unique_lock lock(mutex_);
    changed_.WaitFor(lock, std::chrono::seconds(30), [&] { return ran_.size() >= count; });
    return {ran_.begin(), ran_.end()};
  }

  FakeSender sender_;
  WorkerTable workers_;
  MessageDispatch dispatch_{sender_, workers_, std::shared_ptr<ManagerRequests>(this, [](auto*) {})};
  std::vector<std::string> made_;
  std::unique_ptr<PortAttached> result_;
  std::mutex mutex_;  // guards ran_
  Condition changed_;
  std::vector<std::string> ran_;
};

TEST_F(MessageDispatchTest, AHostConfigIsAcknowledgedBeforeItIsQueued) {
  switching::HostConfigMsg message;
  message.set_transport_node_id("tn");
  message.set_id("c1");
  message.set_revision("4");
  Receive("HostConfigMsg", message);
  EXPECT_EQ(made_,
            std::vector<std::string>{"ack reply transport_node_id: \"tn\" id: \"c1\" revision: \"4\""});
  EXPECT_EQ(Ran(1), std::set<std::string>{"host config corr reply 4"});
}

// A manager that floods the host must get the refusal, and must not get a success for its configuration.
TEST_F(MessageDispatchTest, ARequestTooManyIsAnsweredWithItsReason) {
  workers_.StopTaskThreads();
  workers_.DeleteTaskThreadObjects();
  TaskThread* worker = nullptr;
  ASSERT_EQ(workers_.StartWorker(Worker::kHostSync, "StartHostSyncTaskThread"), 0);
  worker = workers_.Find(Worker::kHostSync);
  Condition changed;
  bool busy = false;
  bool gone = false;
  worker->AddTask(std::make_unique<FunctionTask>([&] {
    std::unique_lock lock(mutex_);
    busy = true;
    changed.NotifyAll();
    changed.Wait(lock, [&] { return gone; });
  }));
  {
    std::unique_lock lock(mutex_);
    changed.Wait(lock, [&] { return busy; });
  }
  while (worker->TakesRequest()) worker->AddTask(Task("waits"));
  switching::HostConfigMsg config;
  config.set_id("c1");
  Receive("HostConfigMsg", config);
  switching::MaintenanceModeConfigMsg mode;
  mode.set_revision("3");
  Receive("MaintenanceModeConfigMsg", mode);
  Receive(std::string(kPrefix) + "LogicalSwitchBulkMsg", "x");
  Receive(std::string(kPrefix) + "HostProfileMsg", "x");
  switching::VTEPRecoveryRequestMsg recovery;
  recovery.set_request_id("r");
  Receive("VTEPRecoveryRequestMsg", recovery);
  switching::VTEPAdminStateMgmtRequestMsg state;
  state.set_request_id("s");
  Receive("VTEPAdminStateMgmtRequestMsg", state);
  const std::string reason = "\"Too many requests wait to be realized.\"";
  EXPECT_EQ(sender_.Take(),
            (std::vector<std::string>{
                "HostConfig corr reply id: \"c1\" error_code: 8700 error_text: " + reason,
                "TnMmode corr reply revision: \"3\" state: 3 error_code: 8700 error_text: " + reason,
                "FullSync corr reply continuation_flag: 2 status: 1 error_text: " + reason,
                "HostProfile corr reply reply_marker: 2 status: 2 error_text: " + reason,
                "VtepRecovery corr reply result_text: " + reason + " request_id: \"r\" result: -1",
                "VtepAdminState corr reply result_text: " + reason + " request_id: \"s\" result: -1",
            }));
  EXPECT_TRUE(made_.empty()) << "no acknowledgement";
  const std::string why = ": Too many requests wait to be realized.";
  EXPECT_EQ(Ends(),
            (std::set<std::string>{"c1" + why, "MaintenanceModeConfigMsg" + why, "LogicalSwitchBulkMsg" + why,
                                   "HostProfileMsg" + why, "VTEPRecoveryRequestMsg" + why,
                                   "VTEPAdminStateMgmtRequestMsg" + why}));
  {
    const std::lock_guard lock(mutex_);
    gone = true;
    changed.NotifyAll();
  }
  workers_.StopTaskThreads();
}

TEST_F(MessageDispatchTest, FullSyncsAndChecksumsReachTheirWorkers) {
  Receive(std::string(kPrefix) + "LogicalSwitchBulkMsg", "not parsed here");
  switching::ChecksumMsg checksum;
  checksum.set_id("tn");
  Receive("ChecksumMsg", checksum);
  EXPECT_EQ(Ran(2), (std::set<std::string>{"full sync 15", "restore tn"}));
}

TEST_F(MessageDispatchTest, AMessageThatDoesNotParseIsLoggedAndDropped) {
  const std::string garbage("\x0a\xff\xff\xff\x7f", 5);
  struct Case {
    const char* type;
    const char* line;
  };
  for (const Case& c : {Case{"LogicalSwitchMsg", "Failed to parse logical switch message"},
                        Case{"VifMsg", "Failed to parse vif message"},
                        Case{"HostConfigMsg", "Failed to parse HostConfigMsg message"},
                        Case{"MaintenanceModeConfigMsg", "Failed to parse maintenance mode config message"},
                        Case{"ChecksumMsg", "Failed to parse CheckSum message"},
                        Case{"HostProfileMsg", "Failed to parse Host Profile message"},
                        Case{"VTEPRecoveryRequestMsg", "Failed to parse Vtep Recovery message"},
                        Case{"VTEPAdminStateMgmtRequestMsg", "Failed to parse Vtep Admin State message"},
                        Case{"VtepIPSyncMsg", "Failed to parse vtepIPSyncMsg message"}}) {
    LogCapture log;
    Receive(std::string(kPrefix) + c.type, garbage);
    EXPECT_TRUE(log.Contains(c.line)) << c.type;
  }
  EXPECT_EQ(made_, std::vector<std::string>{"refused Failed to parse Host Profile message"});
  // Nobody else ends what went no further.
  const std::string why = ": the message cannot be parsed";
  EXPECT_EQ(Ends(),
            (std::set<std::string>{"MaintenanceModeConfigMsg" + why, "HostProfileMsg" + why,
                                   "VTEPRecoveryRequestMsg" + why, "VTEPAdminStateMgmtRequestMsg" + why}));
}

TEST_F(MessageDispatchTest, UnknownEmptyAndUnservedMessagesAreLogged) {
  LogCapture log;
  Receive("com.orlane.zem.other.HostConfigMsg", "x");
  Receive(std::string(kPrefix) + "HostConfigMsgs", "x");
  Receive(std::string(kPrefix) + "HostConfigMsg", "");
  Receive("TransportNodeHostSwitchesMigrationMsg", switching::HostConfigMsg());
  switching::VTEPRecoveryRequestMsg recovery;
  recovery.set_request_id("r");
  Receive("VTEPRecoveryRequestMsg", recovery);
  switching::HostProfileMsg profile;
  profile.set_status(1);
  Receive("HostProfileMsg", profile);
  EXPECT_TRUE(log.Contains("Unsupported message type [com.orlane.zem.other.HostConfigMsg] from MPA"));
  EXPECT_TRUE(log.Contains("Unsupported message type [com.orlane.zem.switching.HostConfigMsgs] from MPA"));
  EXPECT_TRUE(log.Contains("NULL/empty payload of length [0]"));
  EXPECT_TRUE(log.Contains("Failed to create VtepRecoveryTask"));
  EXPECT_EQ(made_, std::vector<std::string>{"refused Error creating HostProfile task"});
  EXPECT_EQ(Ends(), (std::set<std::string>{"VTEPRecoveryRequestMsg: No worker takes the request.",
                                           "HostProfileMsg: No worker takes the request."}));
}

TEST_F(MessageDispatchTest, AnAnswerAboutAVifWakesItsCaller) {
  switching::VifMsg message;
  message.set_type(1);
  auto* vif = message.add_vif_attachment();
  vif->set_operation_id("op-1");
  vif->set_vif_id("v");
  vif->set_old_logical_port_id("old");
  vif->mutable_tenant_context()->set_project("p");
  auto* state = vif->mutable_init_port_state();
  state->set_state("UNBLOCKED_VLAN");
  auto* range = state->add_vlan_range();
  range->set_start(5);
  range->set_end(9);
  Receive("VifMsg", message);
  ASSERT_EQ(made_, std::vector<std::string>{"vif op-1"});
  EXPECT_EQ(result_->old_port_id, "old");
  EXPECT_EQ(result_->project, "p");
  EXPECT_EQ(result_->vlan, -1) << "absent";
  EXPECT_EQ(result_->vlan_ranges, (std::vector<std::pair<uint32_t, uint32_t>>{{5, 9}}));

  vif->clear_operation_id();
  message.clear_type();  // counts as a response
  LogCapture log;
  Receive("VifMsg", message);
  EXPECT_TRUE(log.Contains("MP sent a VifMsg with unset type"));
  EXPECT_TRUE(log.Contains("operation id not found in VIF response"));
  EXPECT_EQ(made_.size(), 1u);
}

TEST_F(MessageDispatchTest, OnlyWholeRequestsAboutVifsPass) {
  switching::VifMsg message;
  message.set_type(0);
  message.add_vif_attachment()->set_vif_id("v");
  LogCapture log;
  Receive("VifMsg", message);
  EXPECT_TRUE(log.Contains("Ignored a REQUEST VifMsg from MP that has unset operation."));
  message.set_operation(2);
  Receive("VifMsg", message);
  EXPECT_TRUE(log.Contains("that has unknown operation [2]"));
  message.set_operation(1);
  Receive("VifMsg", message);
  message.set_operation(3);
  Receive("VifMsg", message);
  message.mutable_vif_attachment(0)->mutable_init_port_state()->set_state("SECURITY_ONLY");
  Receive("VifMsg", message);
  EXPECT_TRUE(log.Contains("dvPort info not present for security-only Vif Restore operation"));
  message.mutable_vif_attachment(0)->clear_vif_id();
  Receive("VifMsg", message);
  EXPECT_TRUE(log.Contains("VifUuid not present for Vif Restore operation"));
  EXPECT_EQ(made_, (std::vector<std::string>{"detach v", "restore v"}));
}

}  // namespace
}  // namespace zem::zema
