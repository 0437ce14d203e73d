#include <gtest/gtest.h>

#include "app/zema/endpoint/vtep_ip_fetching_task.h"
#include "app/zema/endpoint/vtep_request_tasks.h"
#include "app/zema/hostlib/endpoint_library.h"
#include "app/zema/state/realization_options.h"
#include "app/zema/workers/task_queues.h"
#include "framework/node/host_identity.h"
#include "tests/app/zema/lswitch/fake_sender.h"
#include "tests/app/zema/proxy/fake_lum_commands.h"
#include "tests/support/log_capture.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;
using test::LogCapture;

// Answers with the address of each device.
class Addresses : public FakeLumCommands {
 public:
  int InvokeRPC(LumOperation operation, std::string_view data, std::string* out) override {
    EXPECT_EQ(operation, LumOperation::kReadEndpointAddresses);
    asked.emplace_back(data);
    const auto found = replies.find(std::string(data));
    *out = found != replies.end() ? found->second : "no endpoint";
    return found != replies.end() ? kRpcSucceeded : 0;
  }
  std::map<std::string, std::string> replies;
  std::vector<std::string> asked;
};

class EndpointTasksTest : public ::testing::Test, public TaskQueues {
 protected:
  EndpointTasksTest() {
    host_.SetHostId("tn");
    context_ = std::make_shared<EndpointContext>(lum_, library_, host_, *this, options_, &sender_,
                                                 [this](Duration duration) {
                                                   waited_ += duration;
                                                   return true;
                                                 });
  }

  bool AddTask(Worker worker, std::unique_ptr<Runnable> task) override {
    EXPECT_EQ(worker, Worker::kPostHostSync);
    queue_.push_back(std::move(task));
    return true;
  }
  void ClearTasks(Worker) override { queue_.clear(); }
  bool Has(Worker) override { return true; }

  void RunQueue() {
    while (!queue_.empty()) {
      const auto task = std::move(queue_.front());
      queue_.erase(queue_.begin());
      task->Run();
    }
  }

  const AddressFetchingTask::Event event_{"reply", "id", "tn", "3"};
  Addresses lum_;
  EndpointLibrary library_{"libnone.so"};
  HostIdentity host_;
  OptionsStore options_;  // 8 s between two tries
  FakeSender sender_;
  Duration waited_{0};
  std::vector<std::unique_ptr<Runnable>> queue_;
  std::shared_ptr<EndpointContext> context_;
};

TEST_F(EndpointTasksTest, OnlyEndpointsWithoutAddressAreAskedAgain) {
  lum_.replies = {{"vtepDeviceId=knl10", "172.16.1.10~~IpAssigned"},
                  {"vtepDeviceId=knl11", "169.254.1.1~~IpAssigned"},
                  {"vtepDeviceId=knl12", "172.16.1.12~~IpNotAssigned"}};
  VtepIpFetchingTask(context_, event_, {"knl10", "knl11", "knl12", "knl13"}, {2, false}).Run();
  EXPECT_EQ(sender_.Take(),
            std::vector<std::string>{
                "Event  reply transport_node_id: \"tn\" id: \"id\" revision: \"3\" dhcp_ip_acquired_event { "
                "vtep { ipv4_address: \"172.16.1.10\" device_name: \"knl10\" } }"});
  lum_.asked.clear();
  lum_.replies["vtepDeviceId=knl12"] = "172.16.1.12~~IpAssigned";
  LogCapture log;
  RunQueue();
  // knl13 failed and is not tried again; knl11 is tried twice more and then given up.
  EXPECT_EQ(lum_.asked,
            (std::vector<std::string>{"vtepDeviceId=knl11", "vtepDeviceId=knl12", "vtepDeviceId=knl11"}));
  EXPECT_EQ(sender_.Take().size(), 1u);
  EXPECT_TRUE(log.Contains("The vtep ip fetching retry limit exceeded. Abort the task."));
  EXPECT_EQ(waited_, std::chrono::seconds(24)) << "8 s before each try";
}

TEST_F(EndpointTasksTest, AnUnreadableReplyEndsTheTaskWithoutAnEvent) {
  lum_.replies = {{"vtepDeviceId=a", "172.16.1.10~~IpAssigned"}, {"vtepDeviceId=b", "172.16.1.11"}};
  VtepIpFetchingTask(context_, event_, {"a", "b"}, {2, false}).Run();
  EXPECT_TRUE(sender_.Take().empty());
  EXPECT_TRUE(queue_.empty());
  host_.UnsetHostId();
  lum_.asked.clear();
  VtepIpFetchingTask(context_, event_, {"a"}, {2, false}).Run();
  EXPECT_TRUE(lum_.asked.empty()) << "a host without id asks nothing";
}

TEST_F(EndpointTasksTest, ASynchronisationReportsEveryEndpointOnce) {
  lum_.replies = {{"vtepDeviceId=a", "172.16.1.10~fd00::1~IpAssigned"},
                  {"vtepDeviceId=b", "~~IpNotAssigned"},
                  {"vtepDeviceId=c|ipv6AddressConfigType=linklayer", "~::~IpAssigned"}};
  switching::VtepIPSyncMsg request;
  for (const auto& [type, devices] : std::map<std::string, std::vector<std::string>>{
           {"AUTO_CONF", {"c"}}, {"DHCP", {"a", "b"}}, {"STATIC", {"d"}}}) {
    auto* const entry = request.add_host_switch_vtep();
    entry->set_address_type(type);
    for (const std::string& device : devices) entry->add_device_name(device);
  }
  VtepIPSync(context_, "reply", request);
  EXPECT_EQ(queue_.size(), 2u);
  RunQueue();
  const auto sent = sender_.Take();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_NE(sent[0].find("ipv6_address: \"::\""), std::string::npos) << sent[0];
  EXPECT_NE(sent[1].find("ipv4_address: \"172.16.1.10\""), std::string::npos) << sent[1];
  EXPECT_NE(sent[1].find("ipv4_address: \"0.0.0.0\""), std::string::npos) << sent[1];
}

TEST_F(EndpointTasksTest, RequestsAreAnsweredWhateverHappens) {
  switching::VTEPRecoveryRequestMsg recovery;
  recovery.set_request_id("r1");
  VtepRecoveryTask(context_, "corr", "reply", recovery).Run();
  recovery.set_device_name("knl10");
  recovery.set_switch_id("sw");
  lum_.Script("queryDvsNames(sw)", {"ok|", "ok|ks-1"});
  VtepRecoveryTask(context_, "corr", "reply", recovery).Run();
  VtepRecoveryTask(context_, "corr", "reply", recovery).Run();
  switching::VTEPAdminStateMgmtRequestMsg state;
  state.set_device_name("knl10");
  state.set_switch_id("sw");
  VtepAdminStateTask(context_, "corr", "reply", state).Run();
  const auto sent = sender_.Take();
  ASSERT_EQ(sent.size(), 4u);
  EXPECT_EQ(sent[0],
            "VtepRecovery corr reply result_text: \"Sending VTEP Recovery response \" request_id: \"r1\" "
            "result: -1");
  EXPECT_NE(sent[1].find("Sending VTEP Recovery response failed to retrieve the dvsName."),
            std::string::npos);
  // The library is absent in this test.
  EXPECT_NE(sent[2].find("failed with error code 79 : Can not access a needed shared library"),
            std::string::npos)
      << sent[2];
  EXPECT_NE(sent[2].find(" on dvs ks-1"), std::string::npos);
  EXPECT_NE(sent[3].find("Sending VTEP Admin State response failed with error code"), std::string::npos);
}

// After ten configurations in a row, the addresses of the last one must not wait for ten chains of tries.
TEST_F(EndpointTasksTest, ANewerConfigurationEndsTheTriesOfThoseBefore) {
  lum_.replies = {{"vtepDeviceId=knl10", "~~IpNotAssigned"}};
  const auto fetch = [&] {
    const uint64_t configuration = ++context_->configuration;
    queue_.push_back(
        std::make_unique<VtepIpFetchingTask>(context_, event_, std::vector<std::string>{"knl10"},
                                             AddressFetchingTask::Tries{20, false, configuration}));
  };
  fetch();
  queue_.front()->Run();  // queues a successor
  for (int i = 0; i < 9; ++i) fetch();
  queue_.push_back(std::make_unique<VtepIpFetchingTask>(context_, event_, std::vector<std::string>{"knl10"},
                                                        AddressFetchingTask::Tries{0, true}));
  lum_.replies["vtepDeviceId=knl10"] = "172.16.1.10~~IpAssigned";
  waited_ = Duration{0};
  RunQueue();
  EXPECT_EQ(sender_.Take().size(), 2u) << "of the last configuration, and of the manager's request";
  EXPECT_EQ(waited_, std::chrono::seconds(16));
}

}  // namespace
}  // namespace zem::zema
