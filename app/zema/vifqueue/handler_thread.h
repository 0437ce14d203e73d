#pragma once

#include <atomic>
#include <memory>

#include "framework/tasks/thread.h"

namespace zem::zema {

class HandlerPool;
struct VifRequest;

/// A thread of the pool: carries out one request at a time.
///
/// Threads: Assign by the pool, to a handler that is free; Stop by the pool.
class HandlerThread final : public Thread {
 public:
  /// `pool` has to outlive the thread.
  explicit HandlerThread(HandlerPool& pool);
  ~HandlerThread() override;

  void Run() override;
  /// It ends after the request that it has.
  void Stop() override;

  void Assign(std::shared_ptr<VifRequest> request);

  long Number() const { return static_cast<long>(ThreadId()); }

 private:
  std::shared_ptr<VifRequest> Await();
  void ProcessAndGoOn(VifRequest& request);
  void Process(VifRequest& request);
  void Operate(VifRequest& request);

  HandlerPool& pool_;
  std::shared_ptr<VifRequest> assigned_;  // guarded by the monitor
  std::atomic<bool> stopped_ = false;
};

}  // namespace zem::zema
