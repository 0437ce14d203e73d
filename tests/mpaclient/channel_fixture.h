#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mpaclient/bus/bus_record.h"
#include "mpaclient/client_registry.h"
#include "mpaclient/mpa_client_private_base.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "platform/core/thread.h"
#include "platform/core/virtual_clock.h"
#include "platform/provider/provider.h"
#include "platform/rpc/memory_network.h"
#include "platform/rpc/server.h"
#include "platform/rpc/transport.h"
#include "sim/manager/manager.h"
#include "tests/support/log_capture.h"

namespace zem {

inline constexpr const char* kTn = "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01";
inline constexpr const char* kAph1 = "0a000000-0000-4000-8000-000000000001";
inline constexpr const char* kAph2 = "0a000000-0000-4000-8000-000000000002";

/// The manager channel whole, in one process and in memory: the agent's clients on one side, proxy, APHs and
/// manager on the other.
class ChannelTest : public ::testing::Test {
 protected:
  /// A record as a vertical saw it.
  struct Seen {
    int32_t type;
    BusHeader header;
    std::string payload;
    uint32_t major;
    TimePoint when;
  };

  ChannelTest() {
    sim::Manager::Options options;
    options.transport_node_id = kTn;
    manager = std::make_unique<sim::Manager>(options);
    provider.RunAsync(1);
    TnProxyClientCommon::Init("tarvik", "tcp://127.0.0.1:9004", "tcp://127.0.0.1:4096");
    proxy_client = TnProxyClientCommon::getInstance();
  }

  ~ChannelTest() override {
    proxy_client->Stop();
    for (const std::string& name : verticals) ClientRegistry::Unregister(name);
    proxy_client.reset();
    TnProxyClientCommon::Release();
    manager.reset();
    provider.StopAndWait(true);
  }

  void StartManager() {
    manager->StartProxy();
    manager->AddAph(kAph1, true);
    manager->AddAph(kAph2, false);
  }

  void Register(const std::string& name) {
    verticals.push_back(name);
    ClientRegistry::Register(
        provider, [this, name](rmqClientMessage* message) { Take(name, *message); }, name, "unused", 1, 9002,
        30000000, 5000000);
    ClientRegistry::Get(name)->Start(nullptr);
  }

  void Take(const std::string& name, const rmqClientMessage& message) {
    Seen one{message.msg_type, BusHeader::Of(message).value_or(BusHeader()), "", message.mp_major_version,
             clock.Now()};
    if (message.payload != nullptr)
      one.payload.assign(reinterpret_cast<char*>(message.payload), message.payload_len);
    std::function<void(const Seen&)> hook;
    {
      std::lock_guard lock(mutex);
      seen[name].push_back(one);
      hook = on_record;
    }
    if (hook) hook(one);
  }

  std::vector<Seen> SeenBy(const std::string& name) {
    std::lock_guard lock(mutex);
    return seen[name];
  }

  std::vector<int32_t> TypesSeenBy(const std::string& name) {
    std::vector<int32_t> types;
    for (const Seen& each : SeenBy(name)) types.push_back(each.type);
    return types;
  }

  int Send(const std::string& name, BusMessageType type, const BusHeader& header, const std::string& payload,
           const std::string& routing_key = "") {
    BusRecord record(type);
    record.SetApp(name, "test").SetHeader(header).SetContentType(kProtobufContent).SetPayload(payload);
    if (!routing_key.empty()) record.SetRoutingKey(routing_key);
    rmqClientMessage message = record.message();
    return ClientRegistry::Get(name)->SendMessage(&message);
  }

  std::shared_ptr<MpaClientPrivateBase> Private(const std::string& name) {
    return std::dynamic_pointer_cast<MpaClientPrivateBase>(ClientRegistry::Get(name));
  }

  StubMap::Snapshot Snapshot(const std::string& name) { return Private(name)->snapshot(); }

  test::LogCapture log;
  VirtualClock clock;
  rpc::MemoryNetwork network;
  AsioZemProvider provider;
  std::unique_ptr<sim::Manager> manager;
  std::shared_ptr<TnProxyClientCommon> proxy_client;
  std::vector<std::string> verticals;

  std::mutex mutex;  // guards the two below
  std::map<std::string, std::vector<Seen>> seen;
  std::function<void(const Seen&)> on_record;
};

}  // namespace zem
