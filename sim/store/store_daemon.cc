#include "sim/store/store_daemon.h"

#include "platform/provider/provider.h"
#include "platform/rpc/endpoint.h"
#include "platform/rpc/server.h"
#include "platform/rpc/transport.h"
#include "sim/store/store_services.h"

namespace zem::sim {

StoreDaemon::StoreDaemon(AsioZemProvider& provider, const std::string& endpoint,
                         const ObjectRegistry& registry)
    : provider_(provider),
      store_(std::make_shared<Store>(registry)),
      faults_(std::make_shared<StoreFaults>(provider)),
      endpoint_(endpoint) {
  Listen();
}

// Calls that wait hold a reference to the faults, which hold the calls: the cycle is broken here.
StoreDaemon::~StoreDaemon() { faults_->DropWaiting(); }

void StoreDaemon::Listen() {
  if (server_) return;
  rpc::ServerBuilder builder(provider_.rpc());
  builder.AddListeningEndpoint(net::Endpoint(endpoint_));
  RegisterStoreServices(builder, store_, faults_);
  server_ = builder.BuildStarted();
  // If the system chose the port, it has to be the same when the store listens again.
  const net::Endpoint asked(endpoint_);
  if (asked.port() == 0) endpoint_ = "tcp://" + asked.address() + ":" + std::to_string(server_->port());
}

void StoreDaemon::StopListening() {
  if (server_) server_->Stop();
  server_.reset();
}

void StoreDaemon::DropConnections() {
  // Without a server there are no connections, and the store has to stay unreachable.
  if (!server_) return;
  StopListening();
  Listen();
}

uint16_t StoreDaemon::port() const { return net::Endpoint(endpoint_).port(); }

}  // namespace zem::sim
