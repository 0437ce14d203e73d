#pragma once

namespace zem::zema {

class Thread;
struct VifRequest;

/// Carries out operations on the ports of VIFs.
///
/// Threads: DoVifPortOperation from many at a time, EndWaits from any.
class VifHandler {
 public:
  virtual ~VifHandler() = default;

  /// The whole operation.  Its outcome is in the request: the error text, or the result text.  `waiter` is
  /// the calling thread, which holds its monitor: what waits for the manager waits on that.
  virtual void DoVifPortOperation(VifRequest& request, Thread& waiter) = 0;

  /// The host management ends: operations under way wait for nothing any more.
  virtual void EndWaits() {}
};

/// For a host whose ports are not served: says so to everybody who asks for a port's change.
class UnservedVifHandler final : public VifHandler {
 public:
  static constexpr const char* kNotServed = "port operations are not served on this host";

  void DoVifPortOperation(VifRequest& request, Thread& waiter) override;
};

}  // namespace zem::zema
