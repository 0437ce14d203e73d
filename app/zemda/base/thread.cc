#include "app/zemda/base/thread.h"

#include <pthread.h>

#include <boost/thread/exceptions.hpp>
#include <system_error>
#include <utility>

#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/thread.h"

namespace ZemDa {
namespace {

constexpr zem::LogSource kLog{"tarvik", "zemda"};

}  // namespace

Thread::Thread(std::string name) : name_(std::move(name)) {}

Thread::~Thread() = default;

bool Thread::started() const {
  const std::lock_guard lock(mutex_);
  return thread_ != nullptr;
}

void Thread::Start() {
  const std::lock_guard lock(mutex_);
  if (thread_ != nullptr) return;
  ZLOG_DEBUG("Starting thread [%s].", name_.c_str());
  try {
    thread_ = std::make_shared<zem::NativeThread>([this] {
      const zem::LoopThread loop("DA:" + name_, zem::LoopKind::kWorker);
      ZLOG_DEBUG("Starting () for thread. [%s]", name_.c_str());
      try {
        (*this)();
      } catch (const Interrupted&) {
        ZLOG_INFO("Thread [%s] got interrupted.", name_.c_str());
      }
      ZLOG_DEBUG("Ending () for thread. [%s]", name_.c_str());
    });
  } catch (const std::system_error& error) {
    ZLOG_WARN("Thread [%s] cannot be started: %s", name_.c_str(), error.what());
    return;
  }
  ZLOG_DEBUG("Thread [%s] started.", name_.c_str());
}

void Thread::Stop() {
  ZLOG_DEBUG("Stopping thread [%s].", name_.c_str());
  interruption_.Request();
  ZLOG_DEBUG("Thread [%s] stopped.", name_.c_str());
}

void Thread::Join() {
  ZLOG_DEBUG("Joining thread [%s].", name_.c_str());
  std::shared_ptr<zem::NativeThread> thread;
  {
    const std::lock_guard lock(mutex_);
    thread = thread_;
  }
  if (thread == nullptr || !thread->joinable()) return;
  if (pthread_equal(thread->id(), pthread_self()) != 0) {
    throw boost::thread_resource_error(static_cast<int>(boost::system::errc::resource_deadlock_would_occur),
                                       "boost thread: trying joining itself");
  }
  thread->Join();
  ZLOG_DEBUG("Thread [%s] joined.", name_.c_str());
}

void Thread::CleanUp() {
  ZLOG_DEBUG("Cleaning up thread [%s].", name_.c_str());
  {
    const std::lock_guard lock(mutex_);
    if (thread_ != nullptr) thread_->Detach();
    thread_.reset();
  }
  ZLOG_DEBUG("Thread [%s] cleaned up.", name_.c_str());
}

}  // namespace ZemDa
