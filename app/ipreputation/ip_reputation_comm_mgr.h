#pragma once

#include <memory>

namespace zem {
class AsioZemProvider;
namespace covedb {
class CoveDbClientInterface;
}
}  // namespace zem

namespace zem::Tarvik {

class IpReputationMsgHandler;

/// The application that tells the manager how many records the firewall's IP reputation holds on this node.
///
/// Threads: all operations by the main thread.
class IpReputationCommMgr {
 public:
  /// `store` is null on a node without one.
  IpReputationCommMgr(AsioZemProvider& provider, std::shared_ptr<covedb::CoveDbClientInterface> store);
  virtual ~IpReputationCommMgr();
  IpReputationCommMgr(const IpReputationCommMgr&) = delete;
  IpReputationCommMgr& operator=(const IpReputationCommMgr&) = delete;

  [[nodiscard]] bool Start();
  void Stop();

 private:
  AsioZemProvider& provider_;
  const std::shared_ptr<covedb::CoveDbClientInterface> store_;
  std::shared_ptr<IpReputationMsgHandler> handler_;
};

}  // namespace zem::Tarvik
