#pragma once

#include <memory>

namespace zem {
class Runnable;
}  // namespace zem

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

/// The queues of the realization's workers, for code that has a task for one of them.
///
/// Threads: all operations from any thread.
class TaskQueues {
 public:
  virtual ~TaskQueues() = default;

  /// Gives the task to the worker.  Returns false, with the task destroyed, when there is no such worker or
  /// when it is a stopped one that batches; the other workers, once stopped, take a task and destroy it.
  virtual bool AddTask(Worker worker, std::unique_ptr<Runnable> task) = 0;

  /// Destroys the tasks that wait in the worker's queue; does nothing when there is no such worker.
  virtual void ClearTasks(Worker worker) = 0;

  /// Whether there is such a worker.
  virtual bool Has(Worker worker) = 0;
};

}  // namespace zem::zema
