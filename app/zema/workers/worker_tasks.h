#pragma once

#include <memory>
#include <string>

#include "framework/tasks/outcome.h"

namespace zem {
class Runnable;
}  // namespace zem

namespace zem::zema {

class TaskQueues;
class WorkerTable;

// Each function gives a task to its worker.  When the worker is absent, the function logs a line, destroys
// the task and returns false.

/// Sets `error`, which may be null, to the text for the manager.
Outcome AddHostConfigTask(TaskQueues& queues, std::unique_ptr<Runnable> task);
bool AddVtepRecoveryTask(TaskQueues& queues, std::unique_ptr<Runnable> task);
bool AddVtepAdminStateTask(TaskQueues& queues, std::unique_ptr<Runnable> task);
bool AddHighPerformanceProfileTask(TaskQueues& queues, std::unique_ptr<Runnable> task);
/// The task runs when the host configurations' worker has been idle for `delay_seconds`.  Also returns false
/// when such a task is already waiting.
bool AddCklnHotSwapTask(WorkerTable& workers, std::unique_ptr<Runnable> task, int delay_seconds);

}  // namespace zem::zema
