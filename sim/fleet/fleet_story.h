#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/virtual_clock.h"
#include "platform/rpc/memory_network.h"
#include "sim/fleet/fleet_agent.h"
#include "sim/fleet/fleet_manager.h"
#include "sim/store/store_daemon.h"

namespace zem::covedb {
class CoveDbClient;
}

namespace zem::fleet {

/// One simulated second of the manager.
struct Second {
  Load load;
  int ready = 0;  // hosts whose verticals are all served, at its end
};

/// A fabric on the virtual clock: hosts with their agents, local stores and proxies, and the manager.
///
/// Threads: all operations from the thread that makes it.
class Fabric {
 public:
  explicit Fabric(int hosts);
  ~Fabric();

  /// What may happen to a fabric.  Throws std::invalid_argument for a name that is not one of StoryNames.
  std::vector<Second> Tell(std::string_view story);
  static std::vector<std::string> StoryNames();

  int ready() const;
  /// Stores that have their client; all of them when nothing is wrong.
  int stores_connected() const;
  int hosts() const { return static_cast<int>(agents_.size()); }
  /// Resident bytes of the process when no agent ran yet.
  size_t bytes_without_agents() const { return bytes_without_agents_; }

 private:
  using Seconds = std::vector<Second>;

  /// What a story waits for in vain.
  std::string Missing() const;
  void Step(Seconds* seconds);
  void UntilReady(Seconds* seconds);
  void Start(Seconds* seconds);
  void RestartManager(Seconds* seconds);
  void ChangeAphs(Seconds* seconds);
  void LoseStores(Seconds* seconds);
  void Upgrade(Seconds* seconds);

  struct Row {
    const char* name;
    void (Fabric::*tell)(Seconds*);
  };
  static const Row kRows[];

  VirtualClock clock_;
  rpc::MemoryNetwork network_;
  AsioZemProvider agent_provider_;
  AsioZemProvider store_provider_;
  sim::ObjectRegistry registry_;
  std::vector<std::unique_ptr<sim::StoreDaemon>> stores_;
  std::vector<std::shared_ptr<covedb::CoveDbClient>> store_clients_;
  std::unique_ptr<FleetManager> manager_;
  std::vector<std::unique_ptr<FleetAgent>> agents_;
  Load counted_;  // up to the last second that was told
  size_t bytes_without_agents_ = 0;
};

/// Resident bytes of the process.
size_t ResidentBytes();

}  // namespace zem::fleet
