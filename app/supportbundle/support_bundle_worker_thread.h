#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "app/supportbundle/worker_info.h"
#include "platform/core/ref_counted.h"
#include "platform/core/stop_signal.h"

namespace zem::Tarvik {

/// The scripts that make and send a bundle, and what runs them.
struct BundleScripts {
  std::string interpreter = "/usr/bin/python";
  std::string collect = "/opt/orlane/zem-tarvik/libexec/sbundle-collect.py";
  std::string upload = "/opt/orlane/zem-tarvik/libexec/sbundle-upload.py";
  // The scripts watch their own time; this is for one that is stopped or stuck, which would hold up all
  // bundles to come.  An upload may send a gigabyte over a slow line.
  Duration collect_limit = std::chrono::minutes(15);
  Duration upload_limit = std::chrono::hours(6);
};

/// Takes the manager's request, collects the bundle and sends it.  Whatever happens, no bundle is left
/// behind.
///
/// Threads: `Run` on a thread that it has for itself; `Stop` from any.
class SupportBundleWorkerThread : public RefCounted<SupportBundleWorkerThread, IRefCountable> {
 public:
  explicit SupportBundleWorkerThread(WorkerInfo& info, BundleScripts scripts = BundleScripts())
      : info_(info), scripts_(std::move(scripts)) {}

  /// Looks for a request every 5 seconds, until Stop.
  void Run();
  /// Ends a running script within seconds.
  void Stop();
  /// For another Run.
  void Reset();

 private:
  void Pass();
  void Process(BundleRequest& request);
  void Upload(BundleRequest& request, const std::string& local_path);
  void Finish(BundleStatus status);

  WorkerInfo& info_;
  const BundleScripts scripts_;
  StopSignal stop_;
  std::atomic<bool> stopping_{false};  // for the script that runs
};

}  // namespace zem::Tarvik
