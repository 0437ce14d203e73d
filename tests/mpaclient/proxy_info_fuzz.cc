// The proxy's information may arrive in any order, incomplete, and while the connections come and go: after
// the last complete list the client has exactly the content of that list, and works.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "mpaclient/client_registry.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "platform/core/virtual_clock.h"
#include "platform/provider/provider.h"
#include "platform/rpc/memory_network.h"
#include "sim/manager/proxy.h"
#include "tests/support/silent_log.h"

namespace {

using namespace zem;

constexpr const char* kInfo = "tcp://127.0.0.1:9004";
constexpr const char* kForwarding = "tcp://127.0.0.1:4096";
constexpr const char* kName = "SwitchingVertical";

class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), left_(size) {}
  bool empty() const { return left_ == 0; }
  uint8_t Next() {
    if (left_ == 0) return 0;
    --left_;
    return *data_++;
  }

 private:
  const uint8_t* data_;
  size_t left_;
};

std::string Id(uint8_t number) {
  constexpr const char* kDigits = "0123456789abcdef";
  return std::string("0a000000-0000-4000-8000-0000000000") + kDigits[number >> 4] + kDigits[number & 15];
}

// Each entry is a byte for what it has, and one for its id.
sim::ProxyInfo List(Input& input) {
  sim::ProxyInfo info;
  const uint8_t shape = input.Next();
  if ((shape & 0x10) != 0) info.transport_node_id = Id(input.Next());
  if ((shape & 0x20) != 0) info.version.emplace(input.Next(), input.Next());
  for (int i = shape & 0x0f; i > 0; --i) {
    const uint8_t has = input.Next();
    sim::ProxyInfo::Entry entry;
    if ((has & 1) == 0) entry.id = Id(input.Next() & 7);
    if ((has & 2) == 0) entry.master = (has & 4) != 0;
    info.aphs.push_back(std::move(entry));
  }
  return info;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zem::test::SilenceLog();
  constexpr size_t kMost = 256;
  Input input(data, std::min(size, kMost));
  VirtualClock clock;
  rpc::MemoryNetwork network;
  AsioZemProvider provider;
  provider.RunAsync(1);
  auto proxy = std::make_unique<sim::Proxy>(kInfo, kForwarding);
  TnProxyClientCommon::Init("tarvik", kInfo, kForwarding);
  auto client = TnProxyClientCommon::getInstance();
  ClientRegistry::Register(
      provider, [](rmqClientMessage*) {}, kName, "unused", 1, 9002, 30000000, 5000000);
  ClientRegistry::Get(kName)->Start(nullptr);
  client->Start();
  for (int steps = 0; !input.empty() && steps < 32; ++steps) {
    switch (input.Next() % 8) {
      case 0:
      case 1:
      case 2:
        proxy->Publish(List(input));
        break;
      case 3:
        proxy->EndSubscriptions(input.Next());
        break;
      case 4:
        proxy->SetForwarding(input.Next() % 2 != 0);
        break;
      case 5:
        network.Break(input.Next() % 2 != 0 ? kInfo : kForwarding);
        break;
      case 6:
        clock.RunFor(std::chrono::milliseconds(100 * input.Next()));
        break;
      default:
        clock.Settle();
    }
  }
  proxy->SetForwarding(true);
  sim::ProxyInfo last;
  last.aphs.push_back({Id(1), true});
  last.aphs.push_back({Id(2), false});
  proxy->Publish(last);
  clock.RunFor(std::chrono::minutes(1));
  if (!client->connected_for_forwarding()) std::abort();
  if (client->aphs() != TnProxyClientCommon::AphMap{{Id(1), true}, {Id(2), false}}) std::abort();
  client->Stop();
  ClientRegistry::Unregister(kName);
  client.reset();
  TnProxyClientCommon::Release();
  proxy.reset();
  provider.StopAndWait(true);
  return 0;
}
