#pragma once

#include <boost/intrusive_ptr.hpp>
#include <functional>
#include <memory>
#include <string>

namespace orlane::zem::switching {
class HostConfigMsg;
}

namespace zem {
class AsioZemProvider;
class WorkGroup;
namespace covedb {
class CoveDbClientInterface;
}
}  // namespace zem

namespace zem::Tarvik {

/// Realizes on this host what the manager wants: the vertical "SwitchingVertical".
///
/// The start returns at once on a host; the long set-up goes on by itself and tries again, later and later,
/// until it holds.  Messages are taken from then on.
///
/// Threads: Start, WaitStarted and Stop by the main thread, in this order; the rest from any.
class ZemaApp {
 public:
  using HostConfigCallback = std::function<void(const orlane::zem::switching::HostConfigMsg&)>;

  /// `store` may be null on a node without one.
  ZemaApp(AsioZemProvider& provider, boost::intrusive_ptr<WorkGroup> group,
          std::shared_ptr<covedb::CoveDbClientInterface> store);
  ~ZemaApp();

  /// 0.  Throws what the registration with the manager client throws, and when the client is missing.
  int Start(bool ovs_dpdk, bool ovs_dpdk_create_vif, bool lacp_allow_balance_tcp);

  /// Returns when the start has reached the controller list, or the daemon is stopping.
  void WaitStarted();
  bool started() const;

  /// `reason`: 0 for the end of the process, else the step at which the set-up failed.
  void Stop(int reason);

  /// Called with each host configuration that is applied or restored, in order of the ids.  A module's second
  /// callback is refused.
  void RegisterHostCfgMsgCallBack(uint32_t module_id, HostConfigCallback callback);

  /// Removes the host's switches and logical switches, behind the configurations that wait already; `done`
  /// gets what went wrong, or an empty text.  Destroyed uncalled when the daemon stops before.
  void Reset(std::function<void(std::string error)> done);
  /// Empty, or what went wrong.
  std::string ReloadOptions();
  /// Carries out what the host's migration files ask for, behind the configurations that wait already; the
  /// outcome goes into a file.  Empty, or why it will not.
  std::string Migrate(bool vm_ports, bool knl_pnic);

 private:
  class Impl;

  std::unique_ptr<Impl> impl_;
};

}  // namespace zem::Tarvik
