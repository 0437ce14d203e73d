#pragma once

#include "app/supportbundle/worker_info.h"
#include "platform/core/ref_counted.h"
#include "platform/core/stop_signal.h"

namespace zem::Tarvik {

/// Cancels a bundle that the manager has stopped asking for.
///
/// Threads: `Run` on a thread that it has for itself; `Stop` from any.
class SupportBundleStatusCheckThread : public RefCounted<SupportBundleStatusCheckThread, IRefCountable> {
 public:
  explicit SupportBundleStatusCheckThread(WorkerInfo& info) : info_(info) {}

  /// Looks at the request every 5 seconds, until Stop.
  void Run();
  void Stop() { stop_.Stop(); }
  /// For another Run.
  void Reset() { stop_.Reset(); }

 private:
  void Look();

  WorkerInfo& info_;
  StopSignal stop_;
};

}  // namespace zem::Tarvik
