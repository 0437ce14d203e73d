#pragma once

#include <atomic>
#include <cstdint>

#include "app/zema/common/synchronizable.h"

namespace zem::zema {

/// Keeps full syncs and batches of logical switches apart: they change the same table of the host from
/// different threads.
///
/// Who changes the table holds the object's lock meanwhile.  What was gathered before a full sync is older
/// than what the full sync told the host: each update carries the generation in which it was made, and one of
/// an older generation than the present is dropped instead of bringing back a switch that is gone.
///
/// Threads: all operations from any thread.
class LogicalSwitchFence : public Synchronizable {
 public:
  uint64_t generation() const { return generation_; }
  /// With the lock held: whatever was made until now is out of date.
  void Supersede() { ++generation_; }

  /// Barriers of different epochs cannot be compared: the store has begun to count anew.
  uint64_t epoch() const { return epoch_; }
  void RestartBarriers() { ++epoch_; }

 private:
  std::atomic<uint64_t> generation_{1};
  std::atomic<uint64_t> epoch_{1};
};

}  // namespace zem::zema
