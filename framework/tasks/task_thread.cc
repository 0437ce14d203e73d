#include "framework/tasks/task_thread.h"

#include <utility>

#include "framework/log/log.h"
#include "framework/tasks/thread_log_context.h"
#include "platform/core/loop_monitor.h"
#include "platform/timeline/step.h"

// The queue is taken whole by swapping, so the monitor is held for the same short time however long it is;
// tasks run without it.

namespace zem {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

std::time_t WallSeconds() { return std::chrono::system_clock::to_time_t(Clock::Process().WallNow()); }

}  // namespace

TaskThread::TaskThread(std::string name, size_t most_requests)
    : Thread(true, nullptr, 0),
      name_(std::move(name)),
      most_requests_(most_requests),
      gauge_(name_, most_requests) {}

TaskThread::~TaskThread() { StopAndJoin(); }

void TaskThread::AddTask(std::unique_ptr<Runnable> task, bool log_it) {
  if (task == nullptr) {
    if (log_it) {
      ZLOG_ERROR("41003", "TaskThread [%s:%p] got null task", name_.c_str(), static_cast<void*>(this));
    }
    return;
  }
  const void* const address = task.get();
  size_t length = 0;
  {
    const MonitorLock lock(*this);
    if (!stopped()) {
      PushLocked(std::move(task));
      length = queue_.size();
      Notify();
    }
  }
  if (!log_it) return;
  if (length == 0) {
    ZLOG_DEBUG("TaskThread [%s:%p] ignored task [%p] because zema stopped", name_.c_str(),
               static_cast<void*>(this), address);
  } else {
    ZLOG_DEBUG("TaskThread [%s:%p] got task [%p], queue length:[%lu]", name_.c_str(),
               static_cast<void*>(this), address, static_cast<unsigned long>(length));
  }
}

void TaskThread::AddTaskAsleep(std::unique_ptr<Runnable> task) {
  const MonitorLock lock(*this);
  if (!stopped()) PushLocked(std::move(task));
}

void TaskThread::PushLocked(std::unique_ptr<Runnable> task) {
  queue_.push_back(std::move(task));
  gauge_.Entered();
}

bool TaskThread::TakesRequest() {
  if (most_requests_ == QueueGauge::kNoLimit || gauge_.depth() < most_requests_) return true;
  gauge_.Refused();
  return false;
}

bool TaskThread::AddLowPriorityTask(std::unique_ptr<Runnable> task, int delay_seconds) {
  const void* const address = task.get();
  void* const self = this;
  if (task == nullptr) {
    ZLOG_ERROR("41003", "TaskThread [%s:%p] got null task", name_.c_str(), self);
    return false;
  }
  std::unique_ptr<Runnable> replaced;  // destroyed without the monitor
  size_t length = 0;
  {
    const MonitorLock lock(*this);
    if (stopped()) {
      ZLOG_DEBUG("TaskThread [%s:%p] ignored low-priority task [%p] because zema stopped", name_.c_str(),
                 self, address);
      replaced = std::move(task);
      return false;
    }
    replaced = std::exchange(low_priority_task_, std::move(task));
    low_priority_due_ = WallSeconds() + delay_seconds;
    length = queue_.size();
    if (queue_.empty()) Notify();
  }
  if (replaced != nullptr) {
    ZLOG_DEBUG("TaskThread [%s:%p] new low-priority task [%p] replaces old [%p]", name_.c_str(), self,
               address, static_cast<void*>(replaced.get()));
  }
  ZLOG_DEBUG(
      "TaskThread [%s:%p] scheduled low-priority task [%p] to run in %d seconds, regular-task-queue "
      "length:[%lu]",
      name_.c_str(), self, address, delay_seconds, static_cast<unsigned long>(length));
  return true;
}

void TaskThread::Stop() {
  const MonitorLock lock(*this);
  stopped_ = 1;
  Notify();
  ZLOG_INFO("TaskThread [%s:%p] is requested to stop", name_.c_str(), static_cast<void*>(this));
}

void TaskThread::Clear() {
  TaskList tasks;
  std::unique_ptr<Runnable> low_priority;
  const MonitorLock lock(*this);
  SwapQueueLocked(&tasks);
  GivenUp(tasks.size());
  low_priority = std::move(low_priority_task_);
}

size_t TaskThread::queue_length() {
  const MonitorLock lock(*this);
  return queue_.size();
}

void TaskThread::Run() {
  void* const self = this;
  SetThreadLogContext(name_);
  const LoopThread loop(name_, LoopKind::kWorker);
  ZLOG_INFO("TaskThread [%s:%p] starts processing tasks", name_.c_str(), self);
  TaskList tasks;
  for (;;) {
    const Round round = TakeWork(&tasks);
    if (round == Round::kStop) break;
    while (!tasks.empty() && !stopped()) {
      std::unique_ptr<Runnable> task = std::move(tasks.front());
      tasks.pop_front();
      if (round == Round::kTasks) TakenUp();
      RunTask(std::move(task), round);
    }
  }
  GivenUp(tasks.size());
  tasks.clear();
  Clear();
  ZLOG_INFO("TaskThread [%s:%p] ended", name_.c_str(), self);
}

TaskThread::Round TaskThread::TakeWork(TaskList* tasks) {
  const MonitorLock lock(*this);
  while (queue_.empty() && !stopped()) {
    if (low_priority_task_ == nullptr) {
      Wait(0);
      continue;
    }
    const std::time_t now = WallSeconds();
    if (low_priority_due_ <= now) break;
    Wait(static_cast<int>(low_priority_due_ - now));
  }
  if (stopped()) {
    const size_t left = queue_.size() + (low_priority_task_ != nullptr ? 1 : 0);
    ZLOG_INFO("TaskThread [%s:%p] terminating, discarding remaining [%lu] task", name_.c_str(),
              static_cast<void*>(this), static_cast<unsigned long>(left));
    return Round::kStop;
  }
  if (queue_.empty()) {
    tasks->push_back(std::move(low_priority_task_));
    return Round::kLowPriority;
  }
  SwapQueueLocked(tasks);
  return Round::kTasks;
}

void TaskThread::RunTask(std::unique_ptr<Runnable> task, Round round) {
  void* const self = this;
  void* const address = task.get();
  ZLOG_DEBUG("TaskThread [%s:%p] runs task [%p]", name_.c_str(), self, address);
  const timeline::OperationPtr operation = task->carried().operation();
  const timeline::Scope scope(operation);
  if (operation) timeline::Waited("waits in a queue", task->carried().since(), name_);
  try {
    const LoopStep step(task->what());
    Execute(*task);
    // All other kinds are ended by who knows their outcome; a setting that failed was ended with its answer.
    if (operation && operation->kind() == timeline::Kind::kHostSetting) timeline::Finish(operation, {});
  } catch (const std::exception& e) {
    timeline::Finish(operation, e.what());
    const char* const kind = round == Round::kLowPriority ? "low-priority task" : "task";
    ZLOG_ERROR("41004", "TaskThread [%s:%p] : %s [%p] threw exception [%s]", name_.c_str(), self, kind,
               address, e.what());
  }
}

}  // namespace zem
