#include "app/ctxteng/kafka/config_worker.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

}  // namespace

void ConfigWorker::Open() {
  std::lock_guard lock(mutex_);
  open_ = true;
}

void ConfigWorker::Start() {
  std::lock_guard lock(mutex_);
  open_ = true;
  if (thread_.joinable()) return;
  zem::NativeThread::Options options;
  options.name = "ctxt:config";
  thread_ = zem::NativeThread(std::move(options), [this] { Run(); });
}

void ConfigWorker::Stop() {
  zem::NativeThread thread;
  {
    std::lock_guard lock(mutex_);
    tasks_.clear();
    open_ = false;
    changed_.NotifyAll();
    thread = std::move(thread_);
  }
  if (thread.joinable()) thread.Join();
}

void ConfigWorker::Post(uint32_t kind, Task task) {
  std::lock_guard lock(mutex_);
  if (!open_) return;
  if (tasks_.size() >= kMostTasks) {
    const auto oldest = std::ranges::find(tasks_, kind, &Entry::kind);
    ZLOG_WARN("%zu changes of configuration wait; %s of kind %u is dropped", tasks_.size(),
              oldest == tasks_.end() ? "a new one" : "the oldest", kind);
    if (oldest == tasks_.end()) return;
    tasks_.erase(oldest);
  }
  tasks_.push_back({kind, std::move(task)});
  changed_.NotifyAll();
}

size_t ConfigWorker::waiting() const {
  std::lock_guard lock(mutex_);
  return tasks_.size();
}

void ConfigWorker::Run() {
  const zem::LoopThread loop("ctxt:config", zem::LoopKind::kWorker);
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.Wait(lock, [this] { return !open_ || !tasks_.empty(); });
    if (!open_) return;
    Task task = std::move(tasks_.front().task);
    tasks_.pop_front();
    lock.unlock();
    try {
      const zem::LoopStep step("configuration");
      task();
    } catch (const std::exception& error) {
      ZLOG_WARN("A change of configuration failed: %s", error.what());
    }
    task = nullptr;
    lock.lock();
  }
}

}  // namespace Ctxt
