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

  /// The whole operation.  Its outcome is in the request: the error text, or the result text.  `waiter` is
  /// the calling thread, which holds its monitor: it is free while the operation waits for the manager.
  virtual void DoVifPortOperation(VifRequest& request, Thread& waiter) = 0;

  /// A request has arrived and waits for a thread: operations on one VIF are carried out in the order of
  /// these calls, whichever threads serve them.  Does not wait.
  virtual void Arrived(VifRequest& request) = 0;

  /// The first request of a connection is there: until now the host may have changed ports by itself.
  virtual void HostCame() = 0;

  /// The host management ends: operations under way wait for nothing any more.
  virtual void EndWaits() = 0;
};

}  // namespace zem::zema
