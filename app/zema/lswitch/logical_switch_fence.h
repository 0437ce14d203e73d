#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "framework/tasks/synchronizable.h"
#include "platform/core/condition.h"

namespace zem::zema {

/// Keeps full syncs and batches of logical switches apart: they change the same table of the host from
/// different threads.
///
/// A thread holds the object's lock while it changes the table.  Updates gathered before a full sync are
/// older than what the full sync sent to the host: each update carries the generation in which it was made,
/// and an update of an earlier generation is dropped, so that it cannot bring back a switch that is gone.  A
/// full sync of the manager does not include the store's switches, and the store would neither send them
/// again nor get the acknowledgement that it waits for: so it makes only the manager's updates void.  Updates
/// made after the arrival of a full sync wait until the host has it.
///
/// Threads: all operations from any thread.
class LogicalSwitchFence : public Synchronizable {
 public:
  /// The generation of updates from the store.
  uint64_t generation() const { return generation_; }
  /// The generation of updates from the manager; it also changes with the store's generation.
  uint64_t manager_generation() const { return generation_ + manager_syncs_; }
  /// Makes every update so far out of date.
  void Supersede() { ++generation_; }
  /// Makes every update of the manager so far out of date.
  void SupersedeManager() { ++manager_syncs_; }

  /// Barriers of different epochs cannot be compared, because the store has started to count from the
  /// beginning.
  uint64_t epoch() const { return epoch_; }
  void RestartBarriers() { ++epoch_; }

  /// A full sync that has arrived but has not been carried out.  It counts as arrived while the object lives;
  /// the object must not outlive the fence.
  class Arrival {
   public:
    explicit Arrival(LogicalSwitchFence& fence);
    ~Arrival();
    Arrival(const Arrival&) = delete;
    Arrival& operator=(const Arrival&) = delete;

   private:
    LogicalSwitchFence& fence_;
  };
  /// Waits until no arrived full sync is left; must not be called with the lock held.  Returns false when the
  /// realization ends.
  [[nodiscard]] bool AwaitArrivals();
  /// Called when the realization ends: AwaitArrivals no longer waits.
  void Close();

 private:
  std::atomic<uint64_t> generation_{1};
  std::atomic<uint64_t> manager_syncs_{0};
  std::atomic<uint64_t> epoch_{1};
  std::mutex mutex_;  // guards what follows
  Condition changed_;
  int arrivals_ = 0;
  bool closed_ = false;
};

}  // namespace zem::zema
