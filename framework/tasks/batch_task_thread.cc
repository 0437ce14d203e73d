#include "framework/tasks/batch_task_thread.h"

#include <algorithm>
#include <utility>

#include "framework/log/log.h"
#include "framework/tasks/exception.h"
#include "framework/tasks/thread_log_context.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/thread_name.h"

namespace zem {
namespace {
constexpr LogSource kLog{"tarvik", "zema"};
constexpr int kPollSeconds = 1;
}  // namespace

BatchTaskThread::BatchTaskThread(std::string name, int batch_interval, int wait_threshold,
                                 std::unique_ptr<BatchRunnable> batcher, size_t most_requests)
    : TaskThread(std::move(name), most_requests),
      batch_interval_(batch_interval),
      wait_threshold_(wait_threshold),
      batcher_(std::move(batcher)) {}

BatchTaskThread::~BatchTaskThread() { StopAndJoin(); }

void BatchTaskThread::AddTask(std::unique_ptr<Runnable> task) {
  if (task == nullptr) {
    ZLOG_ERROR("41003", "TaskThread [%s:%p] got null task", name().c_str(), static_cast<void*>(this));
    return;
  }
  const MonitorLock lock(*this);
  if (stopped()) throw Exception("BatchTaskThread already stopped", 0);
  PushLocked(std::move(task));
}

void BatchTaskThread::Run() {
  void* const self = this;
  SetThreadName("zema:" + name());
  SetThreadLogContext(name());
  const LoopThread loop(name(), LoopKind::kWorker);
  ZLOG_INFO("[%s:%p] started (batchInterval=%d waitThreshold=%d)...", name().c_str(), self, batch_interval_,
            wait_threshold_);
  for (Came came; (came = WaitForTasks(kPollSeconds)) != Came::kStopped;) {
    if (came == Came::kTasks && !Gather()) break;
  }
  GivenUp(taken_.size());
  taken_.clear();
  Clear();
  ZLOG_INFO("[%s:%p] ended", name().c_str(), self);
}

BatchTaskThread::Came BatchTaskThread::WaitForTasks(int seconds) {
  const MonitorLock lock(*this);
  if (!stopped()) Wait(seconds);
  if (stopped()) {
    ZLOG_INFO("[%s:%p] terminating, discarding remaining task: queue:[%lu] batch:[%ld]", name().c_str(),
              static_cast<void*>(this), static_cast<unsigned long>(queued_locked()), batcher_->Count());
    return Came::kStopped;
  }
  SwapQueueLocked(&taken_);
  return taken_.empty() ? Came::kNothing : Came::kTasks;
}

// One batch, from its first tasks to its run.  False when the worker ends.
bool BatchTaskThread::Gather() {
  int remaining = batch_interval_;
  int elapsed = 0;
  batcher_->Reset();
  for (;;) {
    Feed(elapsed);
    if (remaining < 1) break;
    const int wait = std::min(wait_threshold_, remaining);
    remaining -= wait;
    // A threshold of 0 must not become a wait without end.
    const Came came = wait > 0 ? WaitForTasks(wait) : Came::kNothing;
    if (came == Came::kStopped) return false;
    if (came == Came::kNothing) break;
    elapsed = batch_interval_ - remaining;
  }
  RunBatch(elapsed);
  return true;
}

void BatchTaskThread::Feed(int elapsed) {
  const auto total = static_cast<long>(taken_.size());
  int added = 0;
  while (!taken_.empty() && !stopped()) {
    const std::unique_ptr<Runnable> task = std::move(taken_.front());
    taken_.pop_front();
    TakenUp();
    if (FeedTask(*task)) ++added;
  }
  ZLOG_DEBUG("[%s:%p] : added [%d/%ld] tasks to the batcher, at [%d/%d] time", name().c_str(),
             static_cast<void*>(this), added, total, elapsed, batch_interval_);
}

// True when the batcher has absorbed it.
bool BatchTaskThread::FeedTask(Runnable& task) {
  void* const self = this;
  if (task.IsBatchable()) {
    try {
      batcher_->AddTask(&task);
      return true;
    } catch (const std::exception& e) {
      ZLOG_ERROR("41002", "[%s:%p] : fail to queue task [%p], exception [%s]", name().c_str(), self,
                 static_cast<void*>(&task), e.what());
    }
    return false;
  }
  try {
    batcher_->UpdateBatcher(&task);
    if (batcher_->Count() == 0) {
      const LoopStep step(task.what());
      task.Run();
    }
  } catch (const std::exception& e) {
    ZLOG_ERROR("41000", "[%s:%p] : non-batchable task threw exception [%s]", name().c_str(), self, e.what());
  }
  return false;
}

void BatchTaskThread::RunBatch(int elapsed) {
  void* const self = this;
  ZLOG_DEBUG("[%s:%p] batcher run starts...: tasks in [%d] sec", name().c_str(), self, elapsed);
  try {
    const LoopStep step(batcher_->what());
    batcher_->Run();
  } catch (const std::exception& e) {
    ZLOG_ERROR("41000", "[%s:%p] : batch task threw exception [%s]", name().c_str(), self, e.what());
  }
}

}  // namespace zem
