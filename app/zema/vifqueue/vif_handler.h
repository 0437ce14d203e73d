#pragma once

namespace zem {
class Thread;
}  // namespace zem

namespace zem::zema {

struct VifRequest;

/// Carries out operations on the ports of VIFs.
///
/// Threads: DoVifPortOperation from many at a time, the others from any.
class VifHandler {
 public:
  virtual ~VifHandler() = default;

  /// Carries out the whole operation and stores its outcome in the request, as the error text or the result
  /// text.  `waiter` is the calling thread, which holds its monitor; the operation releases the monitor while
  /// it waits for the manager.
  virtual void DoVifPortOperation(VifRequest& request, Thread& waiter) = 0;

  /// Called when a request arrives, before a thread takes it.  Operations on one VIF are carried out in the
  /// order of these calls, whichever threads serve them.  Does not wait.
  virtual void Arrived(VifRequest& request) = 0;

  /// Called at the first request of a connection.  Until then the host may have changed ports by itself.
  virtual void HostCame() = 0;

  /// Called when the host management ends: every wait of the operations under way ends.
  virtual void EndWaits() = 0;
};

}  // namespace zem::zema
