#include "bench/soak/agent_side.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "mpaclient/client_registry.h"
#include "mpaclient/proxy/spread_delay.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "mpaclient/verticals.h"
#include "platform/core/unique_fd.h"
#include "platform/core/uuid.h"

namespace zem::bench {
namespace {

// A bound socket; two that exist at once have different ports.
std::pair<UniqueFd, std::string> BindFreePort() {
  UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* const plain = reinterpret_cast<sockaddr*>(&address);
  if (!fd || ::bind(fd.get(), plain, size) != 0 || ::getsockname(fd.get(), plain, &size) != 0) {
    throw std::system_error(errno, std::generic_category(), "no free port on the loopback");
  }
  return {std::move(fd), "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port))};
}

// The name under which every vertical registers.
constexpr const char* kAppId = "unused";
constexpr int64_t kEarlyMs = 1500;

}  // namespace

std::string EarlyTransportNode() {
  for (;;) {
    std::string id = RandomUuidText();
    if (SpreadDelayMs(id, kAppId, kFirstStubSpreadMs) <= kEarlyMs) return id;
  }
}

Endpoints FreeEndpoints() {
  const auto info = BindFreePort();
  const auto forwarding = BindFreePort();
  return {info.second, forwarding.second};
}

std::vector<const Vertical*> AllVerticals() {
  std::vector<const Vertical*> all;
  for (int id = 0; id < static_cast<int>(VerticalId::kCount); ++id) {
    all.push_back(&GetVertical(static_cast<VerticalId>(id)));
  }
  return all;
}

bool ServesCalls(const Vertical& vertical) { return vertical.host_class != nullptr; }

bool AsksTheManager(const Vertical& vertical) { return vertical.id != VerticalId::kSupportBundle; }

AgentSide::AgentSide(const Endpoints& endpoints, const std::vector<const Vertical*>& verticals,
                     Receive receive)
    : verticals_(verticals) {
  provider_.RunAsync(1);
  TnProxyClientCommon::Init("tarvik", endpoints.info, endpoints.forwarding);
  proxy_client_ = TnProxyClientCommon::getInstance();
  for (const Vertical* vertical : verticals_) {
    ClientRegistry::Register(
        provider_, [vertical, receive](rmqClientMessage* message) { receive(*vertical, *message); },
        vertical->name, kAppId, 1, 9002, 30000000, 5000000);
    ClientRegistry::Get(vertical->name)->Start(nullptr);
  }
  proxy_client_->Start();
}

AgentSide::~AgentSide() {
  proxy_client_->Stop();
  for (const Vertical* vertical : verticals_) ClientRegistry::Unregister(vertical->name);
  proxy_client_.reset();
  TnProxyClientCommon::Release();
  provider_.StopAndWait(true);
}

bool AgentSide::Ready(const Vertical& vertical) const {
  const auto client = ClientRegistry::Get(vertical.name);
  if (!AsksTheManager(vertical)) return proxy_client_->connected_for_forwarding();
  return client->IsConnected() && client->app_init_completed() && !client->IsMasterStubMissing();
}

bool Send(const Vertical& vertical, BusMessageType kind, const std::string& type,
          const std::string& correlation_id, std::string payload) {
  BusHeader header;
  header.type_id = type;
  header.correlation_id = correlation_id;
  BusRecord record(kind);
  record.SetApp(vertical.name, "bench").SetHeader(header).SetPayload(std::move(payload));
  rmqClientMessage message = record.message();
  return ClientRegistry::Get(vertical.name)->SendMessage(&message) == 0;
}

}  // namespace zem::bench
