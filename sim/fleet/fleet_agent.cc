#include "sim/fleet/fleet_agent.h"

#include <chrono>

#include "mpaclient/client_registry.h"
#include "mpaclient/mpa_client.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "mpaclient/verticals.h"
#include "sim/fleet/fleet_manager.h"

namespace zem::fleet {
namespace {

// As the daemon registers its verticals.
constexpr uint32_t kClientType = 1;
constexpr uint16_t kPort = 9002;
constexpr std::chrono::microseconds kAckTimeout{30'000'000};

}  // namespace

FleetAgent::FleetAgent(AsioZemProvider& provider, int host)
    : provider_(provider),
      host_(host),
      open_(std::make_shared<std::vector<std::atomic<bool>>>(AllVerticals().size())) {}

FleetAgent::~FleetAgent() { Stop(); }

bool FleetAgent::ready() const { return Waiting().empty(); }

std::vector<std::string> FleetAgent::Waiting() const {
  std::vector<std::string> names;
  for (size_t i = 0; i < open_->size(); ++i) {
    // What only serves is not told that it is served.
    if (!(*open_)[i] && !AllVerticals()[i].traits.only_serves) names.emplace_back(AllVerticals()[i].name);
  }
  return names;
}

void FleetAgent::Start() {
  if (running()) return;
  open_ = std::make_shared<std::vector<std::atomic<bool>>>(AllVerticals().size());
  // Clients take the process's proxy client when they are made and keep it; the next agent makes another.
  TnProxyClientCommon::Init("tarvik", FleetManager::InfoEndpoint(host_),
                            FleetManager::ForwardingEndpoint(host_));
  proxy_ = TnProxyClientCommon::getInstance();
  for (const Vertical& vertical : AllVerticals()) {
    auto callback = [open = open_, index = clients_.size()](rmqClientMessage* message) {
      if (message->msg_type == kRmqClientRegistrationAck) (*open)[index] = true;
      if (message->msg_type == kRmqClientClose) (*open)[index] = false;
    };
    clients_.push_back(
        ClientRegistry::Make({provider_, std::move(callback), vertical.name, vertical.app_id, kClientType,
                              kPort, kAckTimeout, vertical.traits.bus_retry, nullptr, nullptr}));
    clients_.back()->Start(nullptr);
  }
  proxy_->Start();
  TnProxyClientCommon::Release();
}

void FleetAgent::Stop() {
  if (!running()) return;
  proxy_->Stop();
  for (const auto& client : clients_) {
    client->Stop();
    ClientRegistry::Retire(*client);
  }
  clients_.clear();
  proxy_.reset();
}

}  // namespace zem::fleet
