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
/// Who changes the table holds the object's lock meanwhile.  What was gathered before a full sync is older
/// than what the full sync told the host: each update carries the generation in which it was made, and one of
/// an older generation than the present is dropped instead of bringing back a switch that is gone.  A full
/// sync of the manager says nothing of what the store has told, and the store would not tell it again, nor be
/// told that it is done with: it voids updates of the manager alone.  What was made behind it waits until the
/// host has it.
///
/// Threads: all operations from any thread.
class LogicalSwitchFence : public Synchronizable {
 public:
  /// Of what the store tells.
  uint64_t generation() const { return generation_; }
  /// Of what the manager tells; it changes with the store's as well.
  uint64_t manager_generation() const { return generation_ + manager_syncs_; }
  /// Whatever was made until now is out of date.
  void Supersede() { ++generation_; }
  /// What the manager has told until now is.
  void SupersedeManager() { ++manager_syncs_; }

  /// Barriers of different epochs cannot be compared: the store has begun to count anew.
  uint64_t epoch() const { return epoch_; }
  void RestartBarriers() { ++epoch_; }

  /// A full sync that has arrived and is not carried out; it counts while the object lives, at most as long
  /// as the fence.
  class Arrival {
   public:
    explicit Arrival(LogicalSwitchFence& fence);
    ~Arrival();
    Arrival(const Arrival&) = delete;
    Arrival& operator=(const Arrival&) = delete;

   private:
    LogicalSwitchFence& fence_;
  };
  /// Waits until none is left; not with the lock held.  False when the realization ends.
  [[nodiscard]] bool AwaitArrivals();
  /// The realization ends: nobody waits any more.
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
