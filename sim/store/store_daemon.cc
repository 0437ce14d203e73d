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

// What waits holds the faults that hold it.
StoreDaemon::~StoreDaemon() { faults_->DropWaiting(); }

void StoreDaemon::Listen() {
  if (server_) return;
  rpc::ServerBuilder builder(provider_.rpc());
  builder.AddListeningEndpoint(net::Endpoint(endpoint_));
  RegisterStoreServices(builder, store_, faults_);
  server_ = builder.BuildStarted();
  // Whoever came by the port that the system chose has to find it again.
  const net::Endpoint asked(endpoint_);
  if (asked.port() == 0) endpoint_ = "tcp://" + asked.address() + ":" + std::to_string(server_->port());
}

void StoreDaemon::StopListening() {
  if (server_) server_->Stop();
  server_.reset();
}

void StoreDaemon::DropConnections() {
  // Without a server there are none, and nobody is to reach the store.
  if (!server_) return;
  StopListening();
  Listen();
}

uint16_t StoreDaemon::port() const { return net::Endpoint(endpoint_).port(); }

}  // namespace zem::sim
