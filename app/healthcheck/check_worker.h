#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/core/thread.h"
#include "platform/provider/bounded_queue.h"

namespace zem::Tarvik {

/// The one thread that calls the switch library.  A call may hang; nobody else does then.
///
/// Threads: Post from any thread; Start and Stop by the owner.
class CheckWorker {
 public:
  using Task = std::function<void()>;

  CheckWorker();
  /// Stops.
  ~CheckWorker();
  CheckWorker(const CheckWorker&) = delete;
  CheckWorker& operator=(const CheckWorker&) = delete;

  void Start();
  /// Waits some seconds for the task that runs; a thread that hangs longer is left behind with what its task
  /// holds.
  void Stop();
  /// False when too much waits already, or after Stop.
  [[nodiscard]] bool Post(Task task) { return queue_->TryPush(std::move(task)); }

 private:
  const std::shared_ptr<BoundedQueue<Task>> queue_;  // shared with the thread
  NativeThread thread_;
};

}  // namespace zem::Tarvik
