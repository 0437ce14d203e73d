#include "app/zema/workers/worker_table.h"

#include <utility>

#include "framework/log/log.h"
#include "framework/tasks/exception.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

// The order in which the workers stop: a worker that produces tasks for others stops before them.
constexpr std::array kStopOrder = {
    Worker::kLogicalSwitch,          Worker::kLsBatchAck, Worker::kHostSync,        Worker::kPostHostSync,
    Worker::kHighPerformanceProfile, Worker::kController, Worker::kDatabaseHandler, Worker::kScaleSim,
};
constexpr std::array kDeleteOrder = {
    Worker::kLsBatchAck, Worker::kLogicalSwitch,          Worker::kHostSync,        Worker::kPostHostSync,
    Worker::kController, Worker::kHighPerformanceProfile, Worker::kDatabaseHandler, Worker::kScaleSim,
};
static_assert(kStopOrder.size() == kWorkerCount && kDeleteOrder.size() == kWorkerCount);

}  // namespace

struct WorkerTable::Row {
  Worker worker;
  const char* name;
  const char* error_code;
  const char* failure;  // "[operation] failed to start ", this, ": ", the reason, and the end
  const char* end;
  size_t most_requests;
};

const std::array<WorkerTable::Row, kWorkerCount>& WorkerTable::Rows() {
  // The manager sends one request at a time for the whole host, and one for each switch of the fabric when it
  // starts anew.
  constexpr size_t kMostHostRequests = 500;
  constexpr size_t kMostSwitchRequests = 100'000;
  // Only this process creates tasks for these workers:
  // - acknowledgements: one for each switch that the batches have realized;
  // - the performance profile: one task at most, guarded by a flag of its own;
  // - the database handler: one task for each object that changed in the node's own store.  The store does
  // not send an update again, so none may be refused;
  // - the simulated load: one task for each start.
  constexpr size_t kOwnWork = QueueGauge::kNoLimit;
  static constexpr std::array<Row, kWorkerCount> rows = {{
      {Worker::kLsBatchAck, "lsBatchAckThread", "41527", "LogicalSwitch batch ACK thread", "\n", kOwnWork},
      {Worker::kLogicalSwitch, "logicalSwitchTaskThread", "41528", "logicalSwitchTaskThread", "\n",
       kMostSwitchRequests},
      {Worker::kHostSync, "hostSyncTaskThread", "41525", "hostSyncTaskThread", "", kMostHostRequests},
      {Worker::kPostHostSync, "postHostSyncTaskThread", "41526", "postHostSyncTaskThread", "",
       kMostHostRequests},
      {Worker::kController, "controllerTaskThread", "41526", "controllerTaskThread", "", kMostHostRequests},
      {Worker::kHighPerformanceProfile, "highPerformanceProfileTaskThread", "41548",
       "highPerformanceProfileTaskThread", "", kOwnWork},
      {Worker::kDatabaseHandler, "databaseHandlerThread", "44097", "databaseHandlerThread", "", kOwnWork},
      {Worker::kScaleSim, "scaleSimTaskThread", "41546", "scaleSimTaskThread", "\n", kOwnWork},
  }};
  return rows;
}

WorkerTable& Workers() {
  static WorkerTable table;
  return table;
}

void WorkerTable::SetFactory(WorkerFactory factory) {
  const Synchronizer lock(table_lock_, __FILE__, __LINE__);
  factory_ = std::move(factory);
}

std::unique_ptr<TaskThread> WorkerTable::Make(const Row& row, const WorkerOptions& options) {
  switch (row.worker) {
    case Worker::kLsBatchAck:
      if (options.ls_ack_batch_interval <= 0) return nullptr;
      return std::make_unique<BatchTaskThread>(row.name, options.ls_ack_batch_interval, options.ls_ack_wait,
                                               factory_.ls_ack_batcher(), row.most_requests);
    case Worker::kLogicalSwitch:
      return std::make_unique<BatchTaskThread>(row.name, options.ls_msg_batch_interval, options.ls_msg_wait,
                                               factory_.ls_batcher(), row.most_requests);
    case Worker::kDatabaseHandler:
      return factory_.database_handler(row.name);
    case Worker::kScaleSim:
      return options.scale_simulation ? std::make_unique<TaskThread>(row.name) : nullptr;
    default:
      return std::make_unique<TaskThread>(row.name, row.most_requests);
  }
}

int WorkerTable::StartLocked(const Row& row, const WorkerOptions& options, const char* operation) {
  std::unique_ptr<TaskThread>& slot = Slot(row.worker);
  if (slot != nullptr) return 0;
  try {
    slot = Make(row, options);
    if (slot != nullptr) slot->Start();
    return 0;
  } catch (const std::exception& e) {
    ZLOG_ERROR(row.error_code, "[%s] failed to start %s: %s%s", operation, row.failure, e.what(), row.end);
    return -1;
  }
}

int WorkerTable::StartTaskThreads() {
  const Synchronizer lock(table_lock_, __FILE__, __LINE__);
  const WorkerOptions options = factory_.options ? factory_.options() : WorkerOptions();
  if (shut_down_) {
    ZLOG_INFO("[%s] Agent is shutting down, skip StartTaskThreads", __func__);
    return 0;
  }
  for (const Row& row : Rows()) {
    if (StartLocked(row, options, __func__) != 0) return -1;
  }
  ZLOG_INFO("[%s] Started all threads successfully", __func__);
  return 0;
}

int WorkerTable::StartWorker(Worker worker, const char* operation) {
  const Synchronizer lock(table_lock_, __FILE__, __LINE__);
  return StartLocked(Rows()[static_cast<size_t>(worker)], WorkerOptions(), operation);
}

void WorkerTable::StopTaskThreads() {
  std::array<TaskThread*, kWorkerCount> stopped{};
  {
    const Synchronizer lock(table_lock_, __FILE__, __LINE__);
    for (const Worker worker : kStopOrder) {
      TaskThread* const thread = Slot(worker).get();
      if (thread == nullptr || thread->ThreadId() == Thread::kNotStarted) continue;
      thread->Stop();
      stopped[static_cast<size_t>(worker)] = thread;
    }
  }
  for (const Worker worker : kStopOrder) {
    TaskThread* const thread = stopped[static_cast<size_t>(worker)];
    if (thread == nullptr) continue;
    ZLOG_INFO("[%s] waiting for %s [%p] to exit...\n", __func__, Rows()[static_cast<size_t>(worker)].name,
              static_cast<void*>(thread));
    thread->Join();
  }
}

void WorkerTable::DeleteTaskThreadObjects() {
  for (const Worker worker : kDeleteOrder) {
    std::unique_ptr<TaskThread> deleted;
    const Synchronizer lock(table_lock_, __FILE__, __LINE__);
    deleted = std::move(Slot(worker));
  }
  shut_down_ = false;
}

int WorkerTable::StartSwitchHandler() {
  const Synchronizer lock(table_lock_, __FILE__, __LINE__);
  if (switch_handler_ != nullptr) return 0;
  try {
    switch_handler_ = factory_.switch_handler();
    switch_handler_->Start();
    return 0;
  } catch (const std::exception& e) {
    ZLOG_ERROR("41524", "[%s] failed to start switchHandler: %s", __func__, e.what());
    return -1;
  }
}

void WorkerTable::StopSwitchHandler() {
  std::unique_ptr<Thread> handler;
  {
    const Synchronizer lock(table_lock_, __FILE__, __LINE__);
    handler = std::move(switch_handler_);
  }
  if (handler == nullptr || handler->ThreadId() == Thread::kNotStarted) return;
  handler->Stop();
  ZLOG_INFO("[%s] waiting for corvdHandler thread to exit...", __func__);
  handler->Join();
}

bool WorkerTable::AddTask(Worker worker, std::unique_ptr<Runnable> task) {
  const Synchronizer lock(table_lock_, __FILE__, __LINE__);
  TaskThread* const thread = Slot(worker).get();
  if (thread == nullptr) return false;
  if (worker != Worker::kLsBatchAck && worker != Worker::kLogicalSwitch) {
    thread->AddTask(std::move(task));
    return true;
  }
  try {
    static_cast<BatchTaskThread*>(thread)->AddTask(std::move(task));
    return true;
  } catch (const Exception& e) {
    ZLOG_DEBUG("[%s] %s: %s", __func__, thread->name().c_str(), e.what());
    return false;
  }
}

bool WorkerTable::TakesRequest(Worker worker) {
  const Synchronizer lock(table_lock_, __FILE__, __LINE__);
  TaskThread* const thread = Slot(worker).get();
  if (thread == nullptr || thread->TakesRequest()) return true;
  ZLOG_WARN("[%s] a request is refused: the queue of %s is full", __func__, thread->name().c_str());
  return false;
}

bool WorkerTable::AddTaskAsleep(Worker worker, std::unique_ptr<Runnable> task) {
  const Synchronizer lock(table_lock_, __FILE__, __LINE__);
  TaskThread* const thread = Slot(worker).get();
  if (thread == nullptr) return false;
  thread->AddTaskAsleep(std::move(task));
  return true;
}

void WorkerTable::ClearTasks(Worker worker) {
  const Synchronizer lock(table_lock_, __FILE__, __LINE__);
  if (TaskThread* const thread = Slot(worker).get()) thread->Clear();
}

std::optional<bool> WorkerTable::AddLowPriorityTask(Worker worker, std::unique_ptr<Runnable> task,
                                                    int delay_seconds) {
  const Synchronizer lock(table_lock_, __FILE__, __LINE__);
  TaskThread* const thread = Slot(worker).get();
  if (thread == nullptr) return std::nullopt;
  return thread->AddLowPriorityTask(std::move(task), delay_seconds);
}

TaskThread* WorkerTable::Find(Worker worker) {
  const Synchronizer lock(table_lock_, __FILE__, __LINE__);
  return Slot(worker).get();
}

}  // namespace zem::zema
