#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "app/zema/covedb/covedb_handler.h"
#include "covedbclient/covedb_client.h"
#include "platform/core/virtual_clock.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/memory_network.h"
#include "sim/store/logical_switches.h"
#include "sim/store/store_daemon.h"
#include "tests/support/log_capture.h"

namespace zem::zema {

using namespace std::chrono_literals;
using orlane::zem::covedb::ObjectType;

/// The store client against a store daemon, over an in-memory network and a clock that the test advances.
class StoreFixture : public testing::Test {
 protected:
  static constexpr const char* kEndpoint = "tcp://127.0.0.1:2480";

  StoreFixture() {
    client = std::make_shared<covedb::CoveDbClient>(
        "tarvik-agent", kEndpoint, agent, nullptr, true, true, false,
        [](int code) { ADD_FAILURE() << "the store refused a write for good: " << code; });
    agent.RunAsync(1);
    store_provider.RunAsync(1);
    StartStore();
  }
  ~StoreFixture() override {
    client.reset();
    clock.Settle();
    agent.StopAndWait(true);
    daemon.reset();
    store_provider.StopAndWait(true);
  }

  /// Starts an empty store, or replaces the running one with an empty one.
  void StartStore() {
    daemon.reset();
    daemon = std::make_unique<sim::StoreDaemon>(store_provider, kEndpoint, registry);
  }
  void Change(const orlane::zem::covedb::ModifyRequestMsg& request) {
    ASSERT_TRUE(daemon->store().Modify({request}).ok());
  }
  /// The store's objects of a type, in text format.
  std::vector<std::string> Stored(ObjectType type) {
    orlane::zem::covedb::GetRequestMsg request;
    orlane::zem::covedb::GetResponseMsg response;
    request.add_object_request()->set_object_type(type);
    EXPECT_TRUE(daemon->store().Get(request, &response).ok());
    std::vector<std::string> texts;
    for (const auto& object : response.object()) texts.push_back(registry.ToText(type, object.object()));
    return texts;
  }

  VirtualClock clock;
  rpc::MemoryNetwork network;
  AsioZemProvider agent;
  AsioZemProvider store_provider;
  const sim::ObjectRegistry registry;
  std::unique_ptr<sim::StoreDaemon> daemon;
  test::LogCapture log;
  std::shared_ptr<covedb::CoveDbClient> client;
};

}  // namespace zem::zema
