#pragma once

#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "sim/inventory/host_inventory.h"
#include "sim/inventory/inventory_daemon.h"
#include "sim/inventory/manager_inventory.h"

namespace ZemDa {
class DiscoveryAgent;
}
namespace zem {
class AsioZemProvider;
namespace covedb {
class CoveDbClientInterface;
}
namespace sim {
class HostState;
class Manager;
class Store;
class VirtualMachines;
}  // namespace sim
}  // namespace zem

namespace zem::world {

/// The discovery agent in a random life: the host's VMs come, change and go by the life's other operations,
/// and here in what only the inventory has; the inventory daemon and the manager's answers fail.
///
/// Threads: the thread of the life.
class WorldInventory {
 public:
  WorldInventory(const sim::HostState& host, sim::VirtualMachines& machines, sim::Manager& manager,
                 const sim::Store& store);
  ~WorldInventory();

  void StartAgent(AsioZemProvider& provider, std::shared_ptr<covedb::CoveDbClientInterface> store);
  void StopAgent();

  /// A VM gets another name, guest or address.
  void Change(std::mt19937_64& random);
  /// The daemon goes or comes, or breaks off; the manager does not answer, or loses its inventory; a tool of
  /// the host fails, or prints another table.
  void Disturb(std::mt19937_64& random);
  void Calm();
  /// Where manager and store are not what the host is.  A manager that lacks something asks for everything.
  std::vector<std::string> Check();

 private:
  void CheckVms(const sim::InventoryFacts& facts, std::vector<std::string>* lines) const;
  void CheckAttachments(const sim::InventoryFacts& facts, std::vector<std::string>* lines) const;
  void NoteUntold(const std::set<std::string>& before, const sim::InventoryFacts& now);

  sim::VirtualMachines& machines_;
  const sim::Store& store_;
  // A full sync tells what there is, and of what is gone only the VMs.  An attachment that has ended before
  // it, unseen by an agent, keeps its record for good.
  mutable std::mutex mutex_;  // guards orphans_
  std::set<std::string> orphans_;
  sim::HostInventory host_;
  sim::InventoryDaemon daemon_;
  sim::ManagerInventory manager_;
  std::unique_ptr<ZemDa::DiscoveryAgent> agent_;
  int checks_ = 0;  // since the manager asked
};

}  // namespace zem::world
