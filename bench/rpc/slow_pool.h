#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "bench/rpc/bench.h"

namespace zem::bench {

/// Runs functions after a delay on one thread of its own: the work that a handler hands over instead of
/// blocking.
class SlowPool {
 public:
  SlowPool();
  ~SlowPool();
  /// Delays are all equal, so the order is that of posting.
  void After(std::chrono::microseconds delay, std::function<void()> function);

 private:
  void Run();

  std::mutex mutex_;  // guards queue_ and stopped_
  std::condition_variable changed_;
  std::deque<std::pair<Instant, std::function<void()>>> queue_;
  bool stopped_ = false;
  std::thread thread_;
};

}  // namespace zem::bench
