// The agent's clients, the proxy, the manager and the store in one process, in memory, through a simulated
// day of random losses.

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <set>

#include "covedbclient/covedb_client.h"
#include "framework/bus_record.h"
#include "mpaclient/mpa_client.h"
#include "mpaclient/mpa_client_private.h"
#include "mpaclient/tn_proxy_client_common.h"
#include "platform/core/provider.h"
#include "platform/core/random.h"
#include "platform/core/virtual_clock.h"
#include "platform/rpc/memory_network.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/scenario.pb.h"
#include "sim/manager/manager.h"
#include "sim/store/store_daemon.h"
#include "tests/support/log_capture.h"

namespace zem {
namespace {

using namespace std::chrono_literals;
namespace store_proto = orlane::zem::covedb;

constexpr const char* kInfo = "tcp://127.0.0.1:9004";
constexpr const char* kForwarding = "tcp://127.0.0.1:4096";
constexpr const char* kStore = "tcp://127.0.0.1:2480";
constexpr const char* kAphs[] = {"0a000000-0000-4000-8000-000000000001",
                                 "0a000000-0000-4000-8000-000000000002",
                                 "0a000000-0000-4000-8000-000000000003"};
constexpr const char* kVerticals[] = {"SwitchingVertical", "Traceflow", "LldpVertical", "HealthCheck"};

// Longer than the longest way back: reconnect 5 s, spread 11 s, app-init retry 30 s, store stub 5 s, and
// twice that.
constexpr auto kQuiet = 3min;

class DayOfLossesTest : public ::testing::Test {
 protected:
  DayOfLossesTest() {
    sim::Manager::Options options;
    options.transport_node_id = "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01";
    manager = std::make_unique<sim::Manager>(options);
    daemon = std::make_unique<sim::StoreDaemon>(store_provider, kStore, registry);
    store_provider.RunAsync(1);
    store =
        std::make_shared<covedb::CoveDbClient>("tarvik-agent", kStore, provider, nullptr, true, true, false);
    store->SetExit([this](int) { ++exits; });
    store->StartAsync();
    provider.RunAsync(2);
    manager->StartProxy();
    for (const char* aph : kAphs) manager->AddAph(aph, aph == kAphs[0]);
    TnProxyClientCommon::Init("tarvik", kInfo, kForwarding);
    proxy_client = TnProxyClientCommon::getInstance();
    for (const char* name : kVerticals) {
      MpaClient::Register(
          provider, [this, name](rmqClientMessage* message) { Receive(name, *message); }, name, "unused", 1,
          9002, 30000000, 5000000);
      MpaClient::Get(name)->Start(nullptr);
    }
    proxy_client->Start();
  }

  ~DayOfLossesTest() override {
    proxy_client->Stop();
    for (const char* name : kVerticals) MpaClient::Unregister(name);
    proxy_client.reset();
    TnProxyClientCommon::Release();
    manager.reset();
    store.reset();
    provider.StopAndWait(true);
    daemon.reset();
    store_provider.StopAndWait(true);
  }

  uint64_t Pick(uint64_t below) { return random() % below; }

  // A vertical: answers each request, and remembers whether it may work.
  void Receive(const std::string& name, const rmqClientMessage& message) {
    const BusHeader header = BusHeader::Of(message).value_or(BusHeader());
    {
      std::lock_guard lock(mutex);
      if (message.msg_type == kRmqClientRegistrationAck) {
        ready[name] = true;
      } else if (message.msg_type == kRmqClientClose) {
        ready[name] = false;
      } else if (message.msg_type == kRmqMpRpcRequest && !seen.insert(header.correlation_id).second) {
        twice.push_back(header.correlation_id);
      }
    }
    if (message.msg_type != kRmqMpRpcRequest) return;
    BusHeader answer;
    answer.type_id = header.type_id;
    answer.correlation_id = header.correlation_id;
    BusRecord record(kRmqClientRpcResponse);
    record.SetApp(name, "test")
        .SetHeader(answer)
        .SetPayload(std::string(reinterpret_cast<const char*>(message.payload), message.payload_len));
    rmqClientMessage out = record.message();
    MpaClient::Get(name)->SendMessage(&out);
  }

  void Ask() {
    sim::Manager::SendRequest request;
    request.vertical = Pick(2) == 0 ? "SwitchingVertical" : "LldpVertical";
    request.member = request.vertical == "LldpVertical" ? "RawPayloadMsg" : "ChecksumMsg";
    request.text = request.vertical == "LldpVertical" ? "payload: \"x\"" : "checksum: \"x\"";
    request.correlation_id = "c" + std::to_string(++asked);
    const int number = asked;
    const std::string error = manager->Send(request, [this, number](const sim::HostAnswer& answer) {
      std::lock_guard lock(mutex);
      ++ends[number];
      if (answer.status.ok()) ++answered;
    });
    if (!error.empty()) ends[number] = 1;
  }

  void Write() {
    const std::string id = std::to_string(Pick(50));
    const auto number = static_cast<int64_t>(++written);
    wanted[id] = number;
    store_proto::ScenarioObjectMsg object;
    object.set_id(id);
    object.set_number(number);
    store_proto::ModifyRequestMsg request;
    auto* const put = request.add_modify_msg()->mutable_put_msg();
    put->set_object_type(store_proto::ObjectType::SCENARIO_OBJECT);
    put->set_object(object.SerializeAsString());
    store->Modify({request}, [this] { ++stored; });
  }

  void Disturb() {
    switch (Pick(8)) {
      case 0:
        return manager->StopProxy();
      case 1:
        return manager->StartProxy();
      case 2:
        return network.Break(Pick(2) == 0 ? kInfo : kForwarding);
      case 3:
        manager->SetMaster(kAphs[Pick(3)]);
        return;
      case 4:
        if (Pick(2) == 0) {
          manager->RemoveAph(kAphs[Pick(3)], Pick(2) == 0);
        } else {
          Restore();
        }
        return;
      case 5:
        return network.Freeze(kForwarding, Pick(2) == 0);
      case 6:
        return network.Break(kStore);
      default:
        return network.SetAway(kStore, Pick(2) == 0);
    }
  }

  void Restore() {
    for (const char* aph : kAphs) {
      manager->RemoveAph(aph, true);
      manager->AddAph(aph, false);
    }
    manager->SetMaster(kAphs[Pick(3)]);
  }

  void CalmDown() {
    network.Freeze(kForwarding, false);
    network.SetAway(kStore, false);
    manager->StartProxy();
    Restore();
    clock.RunFor(kQuiet);
  }

  void Check(int quarter) {
    SCOPED_TRACE("quarter " + std::to_string(quarter));
    std::lock_guard lock(mutex);
    for (const char* name : kVerticals) {
      EXPECT_TRUE(ready[name]) << name;
      const auto snapshot = std::dynamic_pointer_cast<MpaClientPrivateBase>(MpaClient::Get(name))->snapshot();
      EXPECT_EQ(snapshot.stubs.size(), 3u) << name;
      EXPECT_TRUE(snapshot.master_stub) << name;
      EXPECT_EQ(snapshot.master, manager->Master()) << name;
      EXPECT_EQ(snapshot.in_flight, 0u) << name;
      EXPECT_EQ(snapshot.timers, 0u) << name;
      EXPECT_FALSE(snapshot.update_pending) << name;
      EXPECT_TRUE(MpaClient::Get(name)->IsConnected()) << name;
      EXPECT_TRUE(MpaClient::Get(name)->app_init_completed()) << name;
    }
    EXPECT_EQ(ends.size(), static_cast<size_t>(asked));
    for (const auto& [number, count] : ends) EXPECT_EQ(count, 1) << "call " << number;
    EXPECT_TRUE(twice.empty()) << "delivered twice: " << twice.front();
    EXPECT_TRUE(store->IsPendingModificationReqEmpty());
    EXPECT_EQ(stored, written);
  }

  test::LogCapture log{kLogFatal};
  VirtualClock clock;
  rpc::MemoryNetwork network;
  AsioZemProvider provider;
  AsioZemProvider store_provider;
  sim::ObjectRegistry registry;
  std::unique_ptr<sim::StoreDaemon> daemon;
  std::unique_ptr<sim::Manager> manager;
  std::shared_ptr<covedb::CoveDbClient> store;
  std::shared_ptr<TnProxyClientCommon> proxy_client;

  std::mt19937_64 random;
  int asked = 0;
  uint64_t written = 0;
  std::atomic<uint64_t> stored{0};
  std::atomic<int> exits{0};
  std::map<std::string, int64_t> wanted;

  std::mutex mutex;  // guards what follows
  std::map<std::string, bool> ready;
  std::set<std::string> seen;
  std::vector<std::string> twice;
  std::map<int, int> ends;
  int answered = 0;
};

// At each quiet point: every call has ended exactly once, no request came twice, every vertical has a current
// handshake with the master, no write is lost.
TEST_F(DayOfLossesTest, NothingIsLostOrToldTwice) {
  const char* const given = std::getenv("ZEM_SEED");
  const uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 10) : RandomNumber();
  std::printf("ZEM_SEED=%llu\n", static_cast<unsigned long long>(seed));
  random.seed(seed);
  for (int quarter = 0; quarter < 96 && !HasFailure(); ++quarter) {
    const TimePoint end = clock.Now() + 12min;
    while (clock.Now() < end) {
      clock.RunFor(std::chrono::milliseconds(Pick(30'000)));
      Write();
      Ask();
      if (Pick(3) == 0) Disturb();
    }
    CalmDown();
    Check(quarter);
  }
  EXPECT_GT(answered, asked / 4) << "most of the day the node has to be of use";
  EXPECT_EQ(exits, 0);
}

}  // namespace
}  // namespace zem
