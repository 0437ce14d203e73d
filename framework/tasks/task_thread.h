#pragma once

#include <atomic>
#include <ctime>
#include <list>
#include <memory>
#include <string>

#include "framework/tasks/thread.h"
#include "platform/metrics/queue_gauge.h"

namespace zem {

/// A worker: one thread that runs the tasks of its FIFO in order.  An exception of a task is logged and ends
/// that task only.
///
/// AddTask has no limit, because the number of objects bounds the agent's own work (one task for each
/// endpoint, each object of the store, each timer).  A caller that queues the request of another process has
/// to ask TakesRequest first.
///
/// Threads: AddTask, AddLowPriorityTask, TakesRequest, Stop and Clear from any thread.
/// Ownership: the worker owns a task from the moment it is offered.
class TaskThread : public Thread {
 public:
  /// `most_requests`: how many tasks may wait before requests are refused.
  explicit TaskThread(std::string name, size_t most_requests = QueueGauge::kNoLimit);
  ~TaskThread() override;

  /// Queues the task; a stopped worker destroys it.  `log_it` controls the log lines only.
  void AddTask(std::unique_ptr<Runnable> task, bool log_it = true);

  /// Returns whether there is room for a request, and counts a refusal.
  [[nodiscard]] bool TakesRequest();

  /// Queues the task without waking the worker: it runs together with the next one that does wake it.  For a
  /// stream of tasks that ends with a task of its own kind, which wakes the worker.
  void AddTaskAsleep(std::unique_ptr<Runnable> task);

  /// Keeps one task until the queue is empty, `delay_seconds` from now or later.  It replaces the task kept
  /// before.  Returns false when it was refused.
  bool AddLowPriorityTask(std::unique_ptr<Runnable> task, int delay_seconds);

  /// The worker ends after the task that runs now.
  void Stop() override;

  /// Destroys all waiting tasks.
  void Clear();

  void Run() override;

  const std::string& name() const { return name_; }
  size_t queue_length();

 protected:
  /// Runs one task on this thread.  A worker overrides it when its tasks work on the worker itself.
  virtual void Execute(Runnable& task) { task.Run(); }

  bool stopped() const { return stopped_ != 0; }

  using TaskList = std::list<std::unique_ptr<Runnable>>;
  void PushLocked(std::unique_ptr<Runnable> task);
  /// Takes the whole queue, which still counts as waiting: `TakenUp` follows for each task, or `GivenUp`.
  void SwapQueueLocked(TaskList* tasks) { tasks->swap(queue_); }
  size_t queued_locked() const { return queue_.size(); }
  void TakenUp() { gauge_.Left(); }
  void GivenUp(size_t count) { gauge_.Dropped(count); }

 private:
  enum class Round { kTasks, kLowPriority, kStop };

  Round TakeWork(TaskList* tasks);
  void RunTask(std::unique_ptr<Runnable> task, Round round);

  const std::string name_;
  const size_t most_requests_;
  QueueGauge gauge_;
  TaskList queue_;                               // guarded by the monitor
  std::atomic<int> stopped_{0};                  // written under the monitor
  std::unique_ptr<Runnable> low_priority_task_;  // guarded by the monitor
  std::time_t low_priority_due_ = 0;             // seconds since the epoch; guarded by the monitor
};

/// Holds a thread's monitor for a scope.
class MonitorLock {
 public:
  explicit MonitorLock(Thread& thread) : thread_(thread) { thread_.Lock(); }
  ~MonitorLock() { thread_.Unlock(); }
  MonitorLock(const MonitorLock&) = delete;
  MonitorLock& operator=(const MonitorLock&) = delete;

 private:
  Thread& thread_;
};

}  // namespace zem
