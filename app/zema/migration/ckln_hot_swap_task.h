#pragma once

#include <functional>
#include <memory>

#include "framework/tasks/runnable.h"

namespace zem::zema {

class LumCommands;

/// Has the host remove a switch that is no longer used.  A failure is retried without end, at growing
/// intervals.
///
/// Threads: the host configurations' worker, in its low-priority slot.
class CklnHotSwapTask final : public Runnable {
 public:
  /// Puts a task into the slot after `delay` seconds.
  using Schedule = std::function<void(std::unique_ptr<Runnable> task, int delay)>;

  /// `retry_interval` is in seconds; 0 means a single try.  `lum` outlives the task.
  CklnHotSwapTask(LumCommands& lum, Schedule schedule, int retry_interval, int attempts = 0);

  void Run() override;
  bool IsBatchable() const override { return false; }

 private:
  LumCommands& lum_;
  const Schedule schedule_;
  const int retry_interval_;
  const int attempts_;
};

}  // namespace zem::zema
