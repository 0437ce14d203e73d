#include "app/zema/app/io_service.h"

#include "framework/log/log.h"
#include "framework/tasks/function_task.h"
#include "framework/tasks/task_thread.h"

namespace zem::zema {
namespace {
constexpr LogSource kLog{"tarvik", "zema"};
}  // namespace

IOService::IOService() = default;

IOService::~IOService() { Stop(); }

void IOService::Post(std::function<void()> work) {
  const std::lock_guard lock(mutex_);
  if (stopped_) return;
  if (thread_ == nullptr) {
    thread_ = std::make_unique<TaskThread>("IOServiceThread", kMostWaiting);
    thread_->Start();
  }
  if (!thread_->TakesRequest()) {
    ZLOG_WARN("[%s] %zu messages wait for the manager already, one is dropped", __func__, kMostWaiting);
    return;
  }
  thread_->AddTask(std::make_unique<FunctionTask>(std::move(work)), false);
}

void IOService::Stop() {
  std::unique_ptr<TaskThread> thread;
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    thread = std::move(thread_);
  }
  if (thread == nullptr) return;
  thread->Stop();
  thread->Join();
}

}  // namespace zem::zema
