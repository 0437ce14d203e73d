#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "framework/cli/cli_command.h"
#include "framework/status/part_state.h"

namespace zem {
class AsioZemProvider;
namespace covedb {
class CoveDbClientInterface;
}
}  // namespace zem

namespace ZemDa {

class DataSender;

/// Reports the host's inventory to the manager, and keeps the store's records of VMs and of their
/// attachments.
///
/// Threads: `start` and `stop` by the main thread.  An agent that was stopped does not start again.
class DiscoveryAgent {
 public:
  DiscoveryAgent(zem::AsioZemProvider& provider, std::shared_ptr<zem::covedb::CoveDbClientInterface> store);
  ~DiscoveryAgent();

  /// 1, or -1 when the host is of no kind that can be reported.
  int start();
  void stop();

  /// Whether the manager takes the inventory.  From any thread, between start and stop.
  void Describe(std::vector<zem::Tarvik::PartState>* parts) const;
  /// "get/inventory".
  std::vector<zem::Tarvik::CliCommand> Commands();

 private:
  struct Parts;

  zem::AsioZemProvider& provider_;
  const std::shared_ptr<zem::covedb::CoveDbClientInterface> store_;
  std::unique_ptr<Parts> parts_;
  mutable std::mutex mutex_;            // guards sender_
  std::shared_ptr<DataSender> sender_;  // of parts_, for operators
};

}  // namespace ZemDa
