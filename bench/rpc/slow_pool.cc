#include "bench/rpc/slow_pool.h"

namespace zem::bench {

SlowPool::SlowPool() : thread_([this] { Run(); }) {}

SlowPool::~SlowPool() {
  {
    std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void SlowPool::After(std::chrono::microseconds delay, std::function<void()> function) {
  {
    std::lock_guard lock(mutex_);
    queue_.emplace_back(Now() + delay, std::move(function));
  }
  changed_.notify_all();
}

void SlowPool::Run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (stopped_) return;
    if (queue_.empty()) {
      changed_.wait(lock);
      continue;
    }
    if (Now() < queue_.front().first) {
      changed_.wait_until(lock, queue_.front().first);
      continue;
    }
    auto function = std::move(queue_.front().second);
    queue_.pop_front();
    lock.unlock();
    function();
    lock.lock();
  }
}

}  // namespace zem::bench
