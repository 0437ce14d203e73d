#pragma once

#include <memory>
#include <mutex>

#include "app/zema/vif/precreated_ports.h"
#include "platform/core/condition.h"

namespace zem::zema {

class CorvdHandler;
struct VifRequest;

/// The host management handler while there is one: it comes and goes with the workers, and others hold on to
/// this.
///
/// Threads: Set by the owner, the rest from any thread.
class HostManagementSlot {
 public:
  /// Null when the handler goes: it is asked to stop, and nobody waits for it any more when this returns.
  void Set(CorvdHandler* handler);

  /// Gives a request to the handler's threads; logged and dropped while there is none.  Does not wait.
  void AddRequest(std::shared_ptr<VifRequest> request);

  /// Ports that wait for their VIFs.
  void SetPrecreatedPorts(std::shared_ptr<PrecreatedPorts::Map> ports);

  /// Waits, `seconds` at most, until the host management daemon has opened its socket.
  void WaitForConnection(int seconds);

  /// See CorvdHandler::AllowResync.
  void AllowResync(bool allowed);

 private:
  std::mutex mutex_;  // guards what follows
  Condition left_;
  CorvdHandler* handler_ = nullptr;
  int waiting_ = 0;
};

}  // namespace zem::zema
