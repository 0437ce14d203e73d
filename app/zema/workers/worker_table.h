#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "framework/tasks/batch_task_thread.h"
#include "framework/tasks/synchronizable.h"

namespace zem::zema {

/// The workers, in order of start.
enum class Worker {
  kLsBatchAck,
  kLogicalSwitch,
  kHostSync,
  kPostHostSync,
  kController,
  kHighPerformanceProfile,
  kDatabaseHandler,
  kScaleSim,
  kCount,
};
inline constexpr size_t kWorkerCount = static_cast<size_t>(Worker::kCount);

/// The options of the realization that decide about workers; seconds.
struct WorkerOptions {
  int ls_ack_batch_interval = 0;  ///< `mp.lsAckBatchInterval`; 0: no acknowledgement worker
  int ls_ack_wait = 0;            ///< `mp.lsIncomingWaitInBatch`
  int ls_msg_batch_interval = 0;  ///< `mp.lsMsgBatchInterval`
  int ls_msg_wait = 0;            ///< `mp.lsMsgIncomingWaitInBatch`
  bool scale_simulation = false;  ///< switched on, with a port and a switch at least
};

/// What the application brings along: its options and the classes that only it knows.
struct WorkerFactory {
  /// A snapshot of the options.
  std::function<WorkerOptions()> options;
  std::function<std::unique_ptr<BatchRunnable>()> ls_ack_batcher;
  std::function<std::unique_ptr<BatchRunnable>()> ls_batcher;
  std::function<std::unique_ptr<TaskThread>(const std::string& name)> database_handler;
  /// The thread that serves the host management daemon.
  std::function<std::unique_ptr<Thread>()> switch_handler;
};

/// The realization's workers: started together, stopped together, made anew for the next start.
///
/// Threads: all operations from any thread, but starts, stops and deletions one at a time.
class WorkerTable {
 public:
  /// Before the first start.
  void SetFactory(WorkerFactory factory);

  /// 0, or -1 with an error line; what was started then runs until StopTaskThreads.  Does nothing once the
  /// agent shuts down.
  int StartTaskThreads();

  /// Tells all workers to stop, then waits for each.
  void StopTaskThreads();

  /// After StopTaskThreads; then a next life of the agent in this process may start them.
  void DeleteTaskThreadObjects();

  /// These start one worker ahead of the others; nothing when it runs already.  0, or -1 with an error line.
  int StartHostSyncTaskThread() { return StartOne(Worker::kHostSync, __func__); }
  int StartControllerTaskThread() { return StartOne(Worker::kController, __func__); }
  int StartHighPerformanceProfileTaskThread() { return StartOne(Worker::kHighPerformanceProfile, __func__); }

  int StartSwitchHandler();
  void StopSwitchHandler();

  void SetZemaShutDown() { shut_down_ = true; }
  bool IsZemaShutDown() const { return shut_down_; }

  /// Gives the task to the worker; false, with the task destroyed, when there is none or when it is a stopped
  /// one that batches.  The others, once stopped, take a task and destroy it.
  bool AddTask(Worker worker, std::unique_ptr<Runnable> task);

  /// Whether the worker has room for what another process asks for; a refusal is logged and counted.  A
  /// worker that is not there has: AddTask says the rest.
  [[nodiscard]] bool TakesRequest(Worker worker);

  /// The same for a worker that does not batch, without waking it.
  bool AddTaskAsleep(Worker worker, std::unique_ptr<Runnable> task);

  /// Destroys what waits in the worker's queue; nothing when there is no such worker.
  void ClearTasks(Worker worker);

  // The tasks whose worker may be missing: a line is logged and the task destroyed.  `error` may be null.
  bool AddHostConfigTask(std::unique_ptr<Runnable> task, std::string* error);
  bool AddVtepRecoveryTask(std::unique_ptr<Runnable> task);
  bool AddVtepAdminStateTask(std::unique_ptr<Runnable> task);
  bool AddHighPerformanceProfileTask(std::unique_ptr<Runnable> task);
  bool AddCklnHotSwapTask(std::unique_ptr<Runnable> task, int delay_seconds);

  /// For the lookup of one worker, null when absent; valid until DeleteTaskThreadObjects.
  TaskThread* Find(Worker worker);

 private:
  struct Row;
  static const std::array<Row, kWorkerCount>& Rows();

  int StartOne(Worker worker, const char* operation);
  int StartLocked(const Row& row, const WorkerOptions& options, const char* operation);
  std::unique_ptr<TaskThread> Make(const Row& row, const WorkerOptions& options);
  std::unique_ptr<TaskThread>& Slot(Worker worker) { return workers_[static_cast<size_t>(worker)]; }
  bool Offer(Worker worker, std::unique_ptr<Runnable> task, const char* kind, const char* thread);

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
inline int StartHostSyncTaskThread() { return Workers().StartHostSyncTaskThread(); }
inline int StartControllerTaskThread() { return Workers().StartControllerTaskThread(); }
inline int StartHighPerformanceProfileTaskThread() {
  return Workers().StartHighPerformanceProfileTaskThread();
}
inline int StartSwitchHandler() { return Workers().StartSwitchHandler(); }
inline void StopSwitchHandler() { Workers().StopSwitchHandler(); }
inline void SetZemaShutDown() { Workers().SetZemaShutDown(); }

}  // namespace zem::zema
