#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "app/ctxteng/base/engine_parts.h"

namespace Ctxt {

/// What the engine does on an event of the multiplexer.  A part that is null is not told.
///
/// Threads: `Handle` from any thread; one event at a time.
class MuxEvents {
 public:
  /// `away` tells whether the multiplexer has gone; it outlives the object.
  MuxEvents(std::shared_ptr<IIntrospection> introspection, std::shared_ptr<IContextHealth> health,
            std::atomic<bool>& away)
      : introspection_(std::move(introspection)), health_(std::move(health)), away_(away) {}

  void Handle(uint32_t type);

 private:
  void Disconnected();
  void ServiceVm(bool connected);

  const std::shared_ptr<IIntrospection> introspection_;
  const std::shared_ptr<IContextHealth> health_;
  std::atomic<bool>& away_;
  std::mutex mutex_;  // orders the events; held while a part is called, which may not wait for another event
};

}  // namespace Ctxt
