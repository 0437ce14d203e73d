#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "sim/store/store.h"
#include "sim/store/store_faults.h"

namespace zem {
class AsioZemProvider;
namespace rpc {
class Server;
}
}  // namespace zem

namespace zem::sim {

class CommandTable;

/// The store daemon: a store, its faults, and the server that offers it.  Objects are kept only in memory.
///
/// Threads: all operations from any thread, one at a time.  Ownership: the provider and the registry have to
/// outlive it.
class StoreDaemon {
 public:
  /// Throws std::system_error when the endpoint cannot be bound.
  StoreDaemon(AsioZemProvider& provider, const std::string& endpoint, const ObjectRegistry& registry);
  ~StoreDaemon();

  Store& store() { return *store_; }
  StoreFaults& faults() { return *faults_; }
  uint16_t port() const;

  /// Closes all connections.  Clients reconnect if the store listens; no object is lost.
  void DropConnections();
  /// Stops listening until `Listen` is called.
  void StopListening();
  void Listen();

 private:
  AsioZemProvider& provider_;
  const std::shared_ptr<Store> store_;
  const std::shared_ptr<StoreFaults> faults_;
  std::string endpoint_;
  std::unique_ptr<rpc::Server> server_;
};

/// Registers the commands for the daemon.  `daemon` and `registry` have to outlive the table.
void RegisterStoreCommands(CommandTable& table, StoreDaemon& daemon, const ObjectRegistry& registry);

}  // namespace zem::sim
