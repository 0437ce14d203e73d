#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "app/zemda/base/synchronized_queue.h"
#include "app/zemda/base/thread.h"

namespace orlane::zem::ida {
class DcMsg;
}

namespace ZemDa {

using DcQueue = SynchronizedQueue<orlane::zem::ida::DcMsg>;

/// The thread that turns what the host knows into records.
///
/// Threads: all operations from any thread.
class DataCollector : public Thread {
 public:
  using Thread::Thread;

  /// While the manager is not connected, nothing is asked of the host.
  void SetBlocked(bool blocked);
  /// Requests a report of everything, in place of what waits in the queue.
  void SetSyncInitRequested(bool requested);

 protected:
  bool blocked() const { return blocked_; }
  /// Takes the request: false when there is none.
  bool TakeSyncInitRequested();

 private:
  std::atomic<bool> blocked_{false};
  std::atomic<bool> sync_init_requested_{false};
};

/// Makes the collector of one host type.  Each registers itself in the process's list.
class DataCollectorProxyBase {
 public:
  DataCollectorProxyBase();
  virtual ~DataCollectorProxyBase();
  DataCollectorProxyBase(const DataCollectorProxyBase&) = delete;
  DataCollectorProxyBase& operator=(const DataCollectorProxyBase&) = delete;

  virtual std::shared_ptr<DataCollector> create() = 0;
  virtual std::shared_ptr<DataCollector> create(std::shared_ptr<DcQueue> queue) = 0;
  virtual int32_t host_type() const = 0;

  /// Null, after a log line, when no proxy serves the host type.
  static DataCollectorProxyBase* Find(int32_t host_type);
};

}  // namespace ZemDa
