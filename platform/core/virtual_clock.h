#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/core/clock.h"

namespace zem {

/// Time for tests: it stands still while anybody works and jumps to the next deadline when everybody waits.
///
/// The thread that makes the clock counts as working.  It therefore holds time in its hand: nothing moves
/// until it waits, by `RunFor`, `Settle` or any wait of this library.  Every other thread is one of
/// `zem::Thread` (its whole life counts as work, its waits do not) or of a provider (only what was posted
/// counts).  Deadlines fire one at a time in order of time, then of setting, each only after all work of the
/// one before has ended; with the same input the run is the same.
///
/// Only one exists at a time; it is the process's clock from construction to destruction.
class VirtualClock final : public Clock {
 public:
  VirtualClock();
  ~VirtualClock() override;

  TimePoint Now() const override;
  WallTime WallNow() const override;
  bool IsVirtual() const override { return true; }
  AlarmId SetAlarm(TimePoint due, AlarmFunction function) override;
  bool CancelAlarm(AlarmId id) override;
  void BeginWork() override;
  void EndWork() override;
  WatchId Watch(const pollfd* descriptors, size_t count) override;
  void Unwatch(WatchId id) override;

  /// Lets everybody run until `duration` has passed on this clock.  By the thread that made the clock.
  void RunFor(Duration duration);

  /// Lets all work under way end without moving time.
  void Settle() { RunFor(Duration::zero()); }

  /// Work under way now, the caller's own included; for diagnosis.
  int64_t busy() const;

 private:
  void AdvanceWhileIdle(std::unique_lock<std::mutex>& lock);
  bool InputWaitsLocked() const;

  mutable std::mutex mutex_;  // guards all below
  std::atomic<int64_t> now_ns_;
  int64_t busy_ = 1;
  AlarmId last_id_ = 0;
  std::map<std::pair<TimePoint, AlarmId>, AlarmFunction> alarms_;
  std::map<AlarmId, TimePoint> due_;
  WatchId last_watch_ = 0;
  std::map<WatchId, std::vector<std::pair<int, short>>> watched_;  // descriptors and events
};

}  // namespace zem
