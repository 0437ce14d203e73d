#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/zema/workers/task_queues.h"
#include "framework/tasks/batch_task_thread.h"
#include "framework/tasks/synchronizable.h"

namespace zem::zema {

inline constexpr size_t kWorkerCount = static_cast<size_t>(Worker::kCount);

/// The options of the realization that concern the workers; times in seconds.
struct WorkerOptions {
  int ls_ack_batch_interval = 0;  ///< `mp.lsAckBatchInterval`; 0: no acknowledgement worker
  int ls_ack_wait = 0;            ///< `mp.lsIncomingWaitInBatch`
  int ls_msg_batch_interval = 0;  ///< `mp.lsMsgBatchInterval`
  int ls_msg_wait = 0;            ///< `mp.lsMsgIncomingWaitInBatch`
  bool scale_simulation = false;  ///< switched on, with a port and a switch at least
};

/// What the application provides: its options and the classes that only it knows.
struct WorkerFactory {
  /// A snapshot of the options.
  std::function<WorkerOptions()> options;
  std::function<std::unique_ptr<BatchRunnable>()> ls_ack_batcher;
  std::function<std::unique_ptr<BatchRunnable>()> ls_batcher;
  std::function<std::unique_ptr<TaskThread>(const std::string& name)> database_handler;
  /// The thread that serves the host management daemon.
  std::function<std::unique_ptr<Thread>()> switch_handler;
};

/// The realization's workers: started together, stopped together, and created anew for the next start.
///
/// Threads: all operations from any thread, but starts, stops and deletions one at a time.
class WorkerTable final : public TaskQueues {
 public:
  /// Must be called before the first start.
  void SetFactory(WorkerFactory factory);

  /// Returns 0, or -1 with an error line; the workers started by then run until StopTaskThreads.  Does
  /// nothing once the agent shuts down.
  int StartTaskThreads();

  /// Signals all workers to stop, then waits for each of them.
  void StopTaskThreads();

  /// Called after StopTaskThreads.  The workers can then be started again for the agent's next life in this
  /// process.
  void DeleteTaskThreadObjects();

  /// Starts one worker ahead of the others; does nothing when it runs already.  Returns 0, or -1 with an
  /// error line that names the `operation`.
  int StartWorker(Worker worker, const char* operation);

  int StartSwitchHandler();
  void StopSwitchHandler();

  void SetZemaShutDown() { shut_down_ = true; }

  bool AddTask(Worker worker, std::unique_ptr<Runnable> task) override;
  void ClearTasks(Worker worker) override;
  bool Has(Worker worker) override { return Find(worker) != nullptr; }

  /// Like AddTask for a worker that does not batch, but does not wake the worker.
  bool AddTaskAsleep(Worker worker, std::unique_ptr<Runnable> task);

  /// Hands over a task for a time without other work.  Returns whether the worker took it, and nothing when
  /// there is no such worker; the task is destroyed unless it was taken.
  std::optional<bool> AddLowPriorityTask(Worker worker, std::unique_ptr<Runnable> task, int delay_seconds);

  /// Whether the worker has room for a request of another process; a refusal is logged and counted.  An
  /// absent worker has room: AddTask then says that it is absent.
  [[nodiscard]] bool TakesRequest(Worker worker);

  /// The worker, or null when it is absent; valid until DeleteTaskThreadObjects.
  TaskThread* Find(Worker worker);

 private:
  struct Row;
  static const std::array<Row, kWorkerCount>& Rows();

  int StartLocked(const Row& row, const WorkerOptions& options, const char* operation);
  std::unique_ptr<TaskThread> Make(const Row& row, const WorkerOptions& options);
  std::unique_ptr<TaskThread>& Slot(Worker worker) { return workers_[static_cast<size_t>(worker)]; }

  Synchronizable table_lock_;  // guards all below
  WorkerFactory factory_;
  std::array<std::unique_ptr<TaskThread>, kWorkerCount> workers_;
  std::unique_ptr<Thread> switch_handler_;
  std::atomic<bool> shut_down_{false};
};

/// The process's table.
WorkerTable& Workers();

inline int StartTaskThreads() { return Workers().StartTaskThreads(); }
inline void StopTaskThreads() { Workers().StopTaskThreads(); }
inline void DeleteTaskThreadObjects() { Workers().DeleteTaskThreadObjects(); }
inline int StartHostSyncTaskThread() { return Workers().StartWorker(Worker::kHostSync, __func__); }
inline int StartControllerTaskThread() { return Workers().StartWorker(Worker::kController, __func__); }
inline int StartHighPerformanceProfileTaskThread() {
  return Workers().StartWorker(Worker::kHighPerformanceProfile, __func__);
}
inline int StartSwitchHandler() { return Workers().StartSwitchHandler(); }
inline void StopSwitchHandler() { Workers().StopSwitchHandler(); }
inline void SetZemaShutDown() { Workers().SetZemaShutDown(); }

}  // namespace zem::zema
