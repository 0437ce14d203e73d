#pragma once

#include <string>

#include "bench/kill/sweep/sweep_host.h"
#include "bench/kill/sweep/sweep_manager.h"
#include "bench/kill/sweep/sweep_run.h"
#include "bench/kill/sweep/sweep_services.h"
#include "bench/kill/sweep/sweep_store.h"
#include "bench/kill/sweep/sweep_vm.h"

namespace zem::bench {

/// A node and what its peers want of it.  One or several operations are in progress when the daemon is
/// killed. Afterwards the peers behave as real ones do and repeat unanswered requests, and in the end all
/// have to agree.
///
/// Threads: one.
/// Errors: std::runtime_error with the check that failed.
class SweepNode {
 public:
  explicit SweepNode(int clock_factor);

  SweepRun& run() { return run_; }
  SweepManager& manager() { return manager_; }
  SweepStore& store() { return store_; }
  SweepHost& host() { return host_; }
  SweepVm& vm() { return vm_; }
  SweepServices& services() { return services_; }

  // The states in which operations begin.  Each function waits until the state is reached.
  void BeConfigured(const Shape& shape);
  void BeRemoved();
  void LeaveMaintenance();
  /// The VM that operations change runs here, in network "web", or is off.
  void HaveVm(bool on);
  /// The VM runs on another host.
  void HaveVmAway();
  void HaveInterface(bool in);
  void HaveFewSwitches();
  void HaveSecurityPort(bool tied);

  /// Waits until a daemon serves again, lets the peers repeat their unanswered requests, and checks what must
  /// be true at quiet.
  void Settle();

 private:
  std::string Disagreement();

  SweepRun run_;
  SweepStore store_{run_};
  SweepHost host_{run_};
  SweepVm vm_{run_};
  SweepManager manager_{run_, store_, host_};
  SweepServices services_{run_};
};

}  // namespace zem::bench
