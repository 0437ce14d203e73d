#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>

#include "platform/core/condition.h"
#include "platform/core/thread.h"

namespace Ctxt {

/// The thread on which a client takes new configuration: what it makes of it (a Kafka client, files, alarms)
/// takes longer than a callback of the store or of the profile service may.
///
/// Threads: all operations from any thread, except `Stop`, which is the owner's.
/// Limits: 4,096 tasks wait; one more takes the place of the oldest of its kind.
class ConfigWorker {
 public:
  using Task = std::function<void()>;
  static constexpr size_t kMostTasks = 4096;

  ConfigWorker() = default;
  ~ConfigWorker() { Stop(); }
  ConfigWorker(const ConfigWorker&) = delete;
  ConfigWorker& operator=(const ConfigWorker&) = delete;

  /// From now on tasks are taken, and wait for `Start`.
  void Open();
  /// Carries tasks out, also those that wait.  Throws std::system_error.  Calling it twice has no effect.
  void Start();
  /// Runs `task` behind those that were posted before it; what it throws is logged.  Dropped while stopped.
  void Post(uint32_t kind, Task task);
  /// Waits for the task that runs; those that wait are dropped.
  void Stop();
  size_t waiting() const;

 private:
  struct Entry {
    uint32_t kind;
    Task task;
  };

  void Run();

  mutable std::mutex mutex_;  // guards all below
  zem::Condition changed_;
  std::deque<Entry> tasks_;
  bool open_ = false;
  zem::NativeThread thread_;
};

}  // namespace Ctxt
