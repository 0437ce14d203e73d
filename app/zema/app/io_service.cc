#include "app/zema/app/io_service.h"

#include "app/zema/common/function_task.h"
#include "app/zema/common/task_thread.h"

namespace zem::zema {

IOService::IOService() = default;

IOService::~IOService() { Stop(); }

void IOService::Post(std::function<void()> work) {
  const std::lock_guard lock(mutex_);
  if (stopped_) return;
  if (thread_ == nullptr) {
    thread_ = std::make_unique<TaskThread>("IOServiceThread");
    thread_->Start();
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
