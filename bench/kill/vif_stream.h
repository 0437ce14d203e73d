#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "bench/kill/vm_worker.h"
#include "platform/core/condition.h"
#include "platform/core/thread.h"
#include "sim/scenario/node_process.h"

namespace zem::bench {

/// VMs that come, move and go all the time, with a check that the host's ports, their files, the VMs and the
/// manager agree.
///
/// Threads: one owner.
/// Errors: std::runtime_error with the check that failed.
class VifStream {
 public:
  /// Sets up the node and its VMs, which are off.
  VifStream(sim::NodeProcess& node, uint64_t seed);
  ~VifStream();

  /// Changes the VMs on threads of their own until `Settle`.
  void Run();

  /// The host's work without the daemon: some VMs come and go, and marks on their ports record it.
  void ActAlone();

  /// Starts the daemon.
  void Start();

  /// Ends the changes, waits until each has its answer and until all parties agree.  Returns how many rounds
  /// of the resync the last start had begun by then.
  int Settle();

  uint64_t attaches() const { return Sum(&VmWorker::attaches); }
  uint64_t moves() const { return Sum(&VmWorker::moves); }
  uint64_t detaches() const { return Sum(&VmWorker::detaches); }
  uint64_t repeated() const { return Sum(&VmWorker::repeated); }
  /// Number of changes that the host made without a daemon.
  uint64_t alone() const { return alone_; }
  /// Number of drafts of port files that a killed daemon left.
  size_t drafts();

 private:
  struct Running {
    std::unique_ptr<VmWorker> worker;
    NativeThread thread;
  };

  uint64_t Sum(uint64_t (VmWorker::*count)() const) const;
  void Work(VmWorker& worker);
  void AwaitDaemon();
  int ResyncRuns();
  std::string Disagreements();

  sim::NodeProcess& node_;
  std::mt19937_64 random_;
  std::vector<VmWorker::Vm> alone_vms_;
  uint64_t alone_ = 0;
  double started_ = 0;

  std::mutex mutex_;  // guards what follows
  Condition changed_;
  bool running_ = false;
  bool ended_ = false;
  size_t busy_ = 0;
  std::string failure_;

  std::vector<Running> workers_;
};

}  // namespace zem::bench
