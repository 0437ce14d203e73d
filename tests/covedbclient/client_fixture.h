#pragma once

#include <gmock/gmock.h>

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "covedbclient/covedb_client.h"
#include "platform/core/virtual_clock.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/provider.h"
#include "platform/rpc/memory_network.h"
#include "sim/store/store_daemon.h"
#include "tests/covedbclient/store_messages.h"
#include "tests/support/log_capture.h"

namespace zem::covedb::test {

using namespace std::chrono_literals;
using rpc::Status;
using rpc::StatusCode;

constexpr ObjectType kType = ObjectType::SCENARIO_OBJECT;
constexpr const char* kEndpoint = "tcp://127.0.0.1:2480";

/// The client against a real store daemon, over a network in memory and on a clock in hand.
class ClientFixture : public testing::Test {
 protected:
  explicit ClientFixture(bool monitors_enabled = true, bool schema_check = false) {
    client = std::make_shared<CoveDbClient>("tarvik-agent", kEndpoint, agent, nullptr, true, monitors_enabled,
                                            schema_check, [this](int code) { exits.push_back(code); });
    agent.RunAsync(2);
    store_provider.RunAsync(1);
  }
  ~ClientFixture() override {
    client.reset();
    clock.Settle();
    agent.StopAndWait(true);
    daemon.reset();
    store_provider.StopAndWait(true);
  }

  void StartStore() { daemon = std::make_unique<sim::StoreDaemon>(store_provider, kEndpoint, registry); }
  /// Both up, connected, quiet.
  void Connect() {
    StartStore();
    client->StartAsync();
    clock.RunFor(100ms);
    ASSERT_EQ(client->state(), CoveDbClient::State::CONNECTED);
  }
  /// The connection dies and comes back.
  void LoseConnection() {
    network.Break(kEndpoint);
    clock.RunFor(10s);
    ASSERT_EQ(client->state(), CoveDbClient::State::CONNECTED);
  }

  /// Writes down updates as "7:a", barriers as "|" behind the module's number.
  void Register(uint32_t module, uint16_t vdb = kDefaultVDb) {
    ASSERT_TRUE(client->RegisterMonitorCallback(
        module,
        [this, module](const proto::MonitorUpdateMsg& update) {
          proto::ObjectOpMsg operation;
          proto::ScenarioObjectMsg object;
          EXPECT_TRUE(operation.ParseFromString(update.operation()));
          if (!object.ParseFromString(update.object())) object.set_id("garbage");
          events.push_back(std::to_string(module) + ":" + std::to_string(operation.operation()) +
                           object.id());
        },
        [this, module] { events.push_back(std::to_string(module) + "|"); }, vdb));
  }
  void WatchStatus() {
    client->AddChannelStatusCallback([this](bool up) { events.push_back(up ? "up" : "down"); });
  }
  void Modify(std::initializer_list<proto::ModifyMsg> changes, const std::string& name = {}) {
    client->Modify(Requests(changes), [this, name] { events.push_back("done " + name); });
  }
  std::vector<std::string> TakeEvents() { return std::exchange(events, {}); }
  std::vector<std::string> Settle() {
    clock.RunFor(100ms);
    return TakeEvents();
  }

  uint64_t Calls(const std::string& method) {
    for (const auto& seen : daemon->faults().Calls()) {
      if (seen.method == method) return seen.calls;
    }
    ADD_FAILURE() << method;
    return 0;
  }
  std::string Stored(ObjectType type = kType, uint32_t vdb = 1) {
    proto::GetRequestMsg request;
    proto::GetResponseMsg response;
    request.set_vdb_id(vdb);
    request.add_object_request()->set_object_type(type);
    EXPECT_TRUE(daemon->store().Get(request, &response).ok());
    std::string text;
    for (const auto& object : response.object()) {
      proto::ScenarioObjectMsg message;
      EXPECT_TRUE(message.ParseFromString(object.object()));
      text += message.id() + " ";
    }
    return text;
  }
  void PutAtStore(const std::string& id, std::initializer_list<uint32_t> vdbs = {}) {
    const auto requests = Requests({Put(id, vdbs)});
    ASSERT_TRUE(daemon->store().Modify({requests.begin(), requests.end()}).ok());
  }
  std::string MonitorId() {
    const auto streams = daemon->store().streams().List();
    return streams.size() == 1 ? streams[0].monitor_id : std::to_string(streams.size()) + " streams";
  }
  int64_t Pending() { return agent.metrics().gauge("/zem/covedb/client/pending_request/count").value(); }

  VirtualClock clock;
  rpc::MemoryNetwork network;
  AsioZemProvider agent;
  AsioZemProvider store_provider;
  const sim::ObjectRegistry registry;
  std::unique_ptr<sim::StoreDaemon> daemon;
  zem::test::LogCapture log;
  std::vector<int> exits;
  // Written on the agent's threads while the test waits, read by the test while they wait.
  std::vector<std::string> events;
  std::shared_ptr<CoveDbClient> client;
};

}  // namespace zem::covedb::test
