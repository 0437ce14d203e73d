#pragma once

#include <cstdint>
#include <memory>

#include "app/ctxteng/flow/event_queue.h"
#include "app/ctxteng/flow/vm_info.h"

namespace Ctxt::PaceClient {

/// What guests did and nobody has looked at yet.  Events of one guest keep their order within a queue.
///
/// Threads: as EventQueue.
struct FlowQueues {
  /// At most 1,000,000 entries each.
  FlowQueues(uint32_t connections_max, uint32_t vms_max, uint32_t users_max);

  /// Drops what they hold; as `TryPop`.
  void Clear();

  EventQueue<std::shared_ptr<const ConnInfo>> connections;
  EventQueue<std::shared_ptr<const VmEvent>> vms;
  EventQueue<std::shared_ptr<const UserSessionInfo>> users;
};

}  // namespace Ctxt::PaceClient
