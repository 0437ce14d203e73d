#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

namespace zem::rpc {

/// What has to run when the transport stops.
///
/// Threads: all operations from any thread; a hook runs in the stack of `Stop`, without the mutex.
class StopHooks {
 public:
  /// Returns a number for `Remove`; 0, without keeping `hook`, when the transport has stopped already.
  uint64_t Add(std::function<void()> hook) {
    std::lock_guard lock(mutex_);
    if (stopped_) return 0;
    hooks_.emplace(++last_, std::move(hook));
    return last_;
  }

  void Remove(uint64_t number) {
    std::function<void()> dropped;  // destroyed after the lock
    std::lock_guard lock(mutex_);
    if (const auto found = hooks_.find(number); found != hooks_.end()) {
      dropped = std::move(found->second);
      hooks_.erase(found);
    }
  }

  /// Returns the hooks that the caller has to run.
  [[nodiscard]] std::map<uint64_t, std::function<void()>> Stop() {
    std::lock_guard lock(mutex_);
    stopped_ = true;
    return std::exchange(hooks_, {});
  }

 private:
  std::mutex mutex_;  // guards all below
  bool stopped_ = false;
  uint64_t last_ = 0;
  std::map<uint64_t, std::function<void()>> hooks_;
};

}  // namespace zem::rpc
