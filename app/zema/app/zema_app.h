#pragma once

#include <boost/intrusive_ptr.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/zema/app/realization_view.h"
#include "framework/status/part_state.h"

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

/// Realizes on this host the configuration that the manager sends: the vertical "SwitchingVertical".
///
/// On a host, Start returns at once; the long set-up continues on its own thread and is retried with growing
/// delays until it succeeds.  Messages are accepted from then on.
///
/// Threads: the main thread calls Start, WaitStarted and Stop, in this order; the other operations may be
/// called from any thread.
class ZemaApp {
 public:
  using HostConfigCallback = std::function<void(const orlane::zem::switching::HostConfigMsg&)>;

  /// `store` may be null on a node without one.
  ZemaApp(AsioZemProvider& provider, boost::intrusive_ptr<WorkGroup> group,
          std::shared_ptr<covedb::CoveDbClientInterface> store);
  ~ZemaApp();

  /// Returns 0.  Throws when the manager client is missing, and whatever the registration with it throws.
  int Start(bool ovs_dpdk, bool ovs_dpdk_create_vif, bool lacp_allow_balance_tcp);

  /// Returns when the start has reached the controller list, or the daemon is stopping.
  void WaitStarted();
  bool started() const;

  /// `reason` is 0 when the process ends, otherwise the step at which the set-up failed.
  void Stop(int reason);

  /// `callback` gets each host configuration that is applied or restored; the modules are called in order of
  /// their ids.  A second callback of the same module is refused.
  void RegisterHostCfgMsgCallBack(uint32_t module_id, HostConfigCallback callback);

  /// Queues the removal of the host's switches and logical switches behind the configurations that wait
  /// already. `done` gets the error, or an empty text.  It is destroyed without being called when the daemon
  /// stops first.
  void Reset(std::function<void(std::string error)> done);
  /// Returns an empty text on success, otherwise the error.
  std::string ReloadOptions();
  /// Queues the migration that the host's migration files ask for, behind the configurations that wait
  /// already; its outcome is written to a file.  Returns an empty text, or the reason why the migration is
  /// refused.
  std::string Migrate(bool vm_ports, bool knl_pnic);

  /// Appends the states of the realization's parts: its set-up, the host's management, maintenance mode.
  void Describe(std::vector<PartState>* parts) const;
  SwitchesView Switches() const;
  /// At most `most` ports.
  PortsView Ports(size_t most) const;

 private:
  class Impl;

  std::unique_ptr<Impl> impl_;
};

}  // namespace zem::Tarvik
