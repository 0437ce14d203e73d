#pragma once

#include <memory>
#include <string>

#include "framework/tasks/task_thread.h"

namespace zem {

/// A worker that gathers batchable tasks for some seconds and has them handled in one run.
///
/// It looks for tasks once a second instead of being woken by each, so that a burst costs no wake-ups.  A
/// batch closes after `batch_interval` seconds, or as soon as nothing came for `wait_threshold` seconds.
class BatchTaskThread : public TaskThread {
 public:
  BatchTaskThread(std::string name, int batch_interval, int wait_threshold,
                  std::unique_ptr<BatchRunnable> batcher, size_t most_requests = QueueGauge::kNoLimit);
  ~BatchTaskThread() override;

  /// Throws Exception when the worker was stopped; the task is destroyed.
  void AddTask(std::unique_ptr<Runnable> task);

  void Run() override;

 private:
  // How a wait for tasks ended.
  enum class Came { kStopped = -1, kNothing = 0, kTasks = 1 };

  Came WaitForTasks(int seconds);
  bool Gather();
  void Feed(int elapsed);
  bool FeedTask(Runnable& task);
  void RunBatch(int elapsed);

  const int batch_interval_;
  const int wait_threshold_;
  const std::unique_ptr<BatchRunnable> batcher_;
  TaskList taken_;  // of the worker's thread only
};

}  // namespace zem
