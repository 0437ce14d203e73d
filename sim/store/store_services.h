#pragma once

#include <memory>

namespace zem::rpc {
class ServerBuilder;
}

namespace zem::sim {

class Store;
class StoreFaults;

/// Adds the store's three services to a server.  Both arguments are shared with calls in progress.
void RegisterStoreServices(rpc::ServerBuilder& builder, std::shared_ptr<Store> store,
                           std::shared_ptr<StoreFaults> faults);

}  // namespace zem::sim
