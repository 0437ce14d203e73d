#include "platform/rpc/server.h"

#include <stdexcept>
#include <utility>

#include "platform/rpc/hub/transport_impl.h"

namespace zem::rpc {
namespace {

class BuiltServer final : public Server {
 public:
  BuiltServer(TransportImpl& transport, std::shared_ptr<ServerParts> parts)
      : transport_(transport.weak_from_this()), parts_(std::move(parts)) {
    for (const auto& listening : parts_->listening) ports_.push_back(listening.listener->port());
  }
  ~BuiltServer() override { BuiltServer::Stop(); }

  uint16_t port(size_t listener) const override { return ports_.at(listener); }

  void Stop() override {
    if (const auto transport = transport_.lock()) transport->connections().RemoveServer(parts_);
  }

 private:
  const std::weak_ptr<TransportImpl> transport_;
  const std::shared_ptr<ServerParts> parts_;
  std::vector<uint16_t> ports_;
};

}  // namespace

struct ServerBuilder::Parts {
  std::shared_ptr<ServerParts> server = std::make_shared<ServerParts>();
};

ServerBuilder::ServerBuilder(Transport& transport)
    : transport_(transport), parts_(std::make_unique<Parts>()) {}

ServerBuilder::~ServerBuilder() = default;

ServerBuilder& ServerBuilder::AddListeningEndpoint(net::Endpoint endpoint, ConnectionOptions options) {
  parts_->server->listening.push_back({std::move(endpoint), std::move(options), nullptr});
  return *this;
}

ServerBuilder& ServerBuilder::AddLocalEndpointId(std::string id) {
  parts_->server->ids.push_back(std::move(id));
  return *this;
}

ServerBuilder& ServerBuilder::RegisterService(std::shared_ptr<ServiceBase> service, ServiceOptions) {
  parts_->server->services[service->info().name] = std::move(service);
  return *this;
}

std::unique_ptr<Server> ServerBuilder::BuildStarted() {
  auto server = std::exchange(parts_->server, std::make_shared<ServerParts>());
  auto& transport = static_cast<TransportImpl&>(transport_);
  transport.connections().AddServer(server);
  return std::make_unique<BuiltServer>(transport, std::move(server));
}

}  // namespace zem::rpc
