#pragma once

#include <memory>
#include <string>

namespace zem {
class Runnable;
}  // namespace zem

namespace zem::zema {

class TaskQueues;
class WorkerTable;

// Each gives a task to its worker.  When the worker is absent, a line is logged, the task is destroyed and
// false is returned.

/// `error`, which may be null, gets the text for the manager.
bool AddHostConfigTask(TaskQueues& queues, std::unique_ptr<Runnable> task, std::string* error);
bool AddVtepRecoveryTask(TaskQueues& queues, std::unique_ptr<Runnable> task);
bool AddVtepAdminStateTask(TaskQueues& queues, std::unique_ptr<Runnable> task);
bool AddHighPerformanceProfileTask(TaskQueues& queues, std::unique_ptr<Runnable> task);
/// Runs when the host configurations' worker has been idle for `delay_seconds`; also false when such a task
/// waits.
bool AddCklnHotSwapTask(WorkerTable& workers, std::unique_ptr<Runnable> task, int delay_seconds);

}  // namespace zem::zema
