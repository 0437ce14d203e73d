#pragma once

#include <memory>

namespace zem {
class AsioZemProvider;
namespace covedb {
class CoveDbClientInterface;
}
}  // namespace zem

namespace ZemDa {

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

 private:
  struct Parts;

  zem::AsioZemProvider& provider_;
  const std::shared_ptr<zem::covedb::CoveDbClientInterface> store_;
  std::unique_ptr<Parts> parts_;
};

}  // namespace ZemDa
