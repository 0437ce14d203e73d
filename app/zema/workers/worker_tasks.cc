#include "app/zema/workers/worker_tasks.h"

#include <utility>

#include "app/zema/workers/worker_table.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kNoHostConfigThread = "HostConfigTask is ignored because of no HostConfig thread.";

bool Offer(TaskQueues& queues, Worker worker, std::unique_ptr<Runnable> task, const char* kind,
           const char* thread) {
  const void* const address = task.get();
  if (queues.AddTask(worker, std::move(task))) return true;
  ZLOG_WARN("%s [%p] is ignored because of no %s thread.", kind, address, thread);
  return false;
}

}  // namespace

Outcome AddHostConfigTask(TaskQueues& queues, std::unique_ptr<Runnable> task) {
  if (Offer(queues, Worker::kHostSync, std::move(task), "HostConfigTask", "HostConfig"))
    return Outcome::Done();
  return Outcome::Failed(kNoHostConfigThread);
}

bool AddVtepRecoveryTask(TaskQueues& queues, std::unique_ptr<Runnable> task) {
  return Offer(queues, Worker::kHostSync, std::move(task), "VtepRecoveryTask", "HostConfig");
}

bool AddVtepAdminStateTask(TaskQueues& queues, std::unique_ptr<Runnable> task) {
  return Offer(queues, Worker::kHostSync, std::move(task), "vtepAdminStateTask", "HostConfig");
}

bool AddHighPerformanceProfileTask(TaskQueues& queues, std::unique_ptr<Runnable> task) {
  return Offer(queues, Worker::kHighPerformanceProfile, std::move(task), "highPerformanceProfileTask",
               "highPerformanceProfile");
}

bool AddCklnHotSwapTask(WorkerTable& workers, std::unique_ptr<Runnable> task, int delay_seconds) {
  if (const auto added = workers.AddLowPriorityTask(Worker::kHostSync, std::move(task), delay_seconds)) {
    return *added;
  }
  ZLOG_WARN("HotSwapUnusedCkln Task is ignored because of no HostConfig thread.");
  return false;
}

}  // namespace zem::zema
