#include "app/zemda/delivery/manager_road.h"

#include <mutex>
#include <utility>

#include "mpaclient/bus/bus_record.h"
#include "mpaclient/client_registry.h"
#include "mpaclient/mpa_client.h"
#include "platform/provider/provider.h"

namespace ZemDa {
namespace {

constexpr const char* kApplication = "INVENTORY_DISCOVERY_APPLICATION";
constexpr const char* kSentType = "com.orlane.zem.ida.InventoryDiscoveryMessage.IdaMessage";
// What every vertical registers with.
constexpr uint32_t kClientType = 1;
constexpr uint16_t kPort = 9002;
constexpr uint64_t kAckTimeoutUs = 30000000;
constexpr uint64_t kRetryTimeoutUs = 5000000;

class ManagerRoad final : public IManagerRoad {
 public:
  explicit ManagerRoad(zem::AsioZemProvider& provider) : provider_(provider) {}

  void Start(Receive receive) override {
    registered_ = zem::ClientRegistry::Register(
        provider_, [receive = std::move(receive)](rmqClientMessage* record) { receive(*record); },
        kApplication, kApplication, kClientType, kPort, kAckTimeoutUs, kRetryTimeoutUs);
    auto client = zem::ClientRegistry::Get(kApplication);
    {
      const std::lock_guard lock(mutex_);
      client_ = client;
    }
    if (client != nullptr) client->Start(nullptr);
  }

  void Stop() override {
    std::shared_ptr<zem::MpaClient> client;
    {
      const std::lock_guard lock(mutex_);
      client.swap(client_);
    }
    if (client != nullptr) client->Stop();
    if (std::exchange(registered_, false)) zem::ClientRegistry::Unregister(kApplication);
  }

  bool IsConnected() const override {
    const auto client = Client();
    return client != nullptr && client->IsConnected();
  }

  int32_t cookie() const override {
    const auto client = Client();
    return client != nullptr ? client->cookie() : -1;
  }

  int Send(std::string payload, const std::string& correlation_id) override {
    const auto client = Client();
    if (client == nullptr) return -1;
    zem::BusHeader header;
    header.correlation_id = correlation_id;
    header.type_id = kSentType;
    zem::BusRecord record(zem::kRmqClientRpcRequest);
    record.SetApp(kApplication, kApplication)
        .SetCookie(client->cookie())
        .SetHeader(header)
        .SetContentType(zem::kProtobufContent)
        .SetPayload(std::move(payload));
    rmqClientMessage message = record.message();
    return client->SendMessage(&message);
  }

 private:
  std::shared_ptr<zem::MpaClient> Client() const {
    const std::lock_guard lock(mutex_);
    return client_;
  }

  zem::AsioZemProvider& provider_;
  bool registered_ = false;
  mutable std::mutex mutex_;  // guards client_
  std::shared_ptr<zem::MpaClient> client_;
};

}  // namespace

std::unique_ptr<IManagerRoad> MakeManagerRoad(zem::AsioZemProvider& provider) {
  return std::make_unique<ManagerRoad>(provider);
}

}  // namespace ZemDa
