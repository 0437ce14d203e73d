#pragma once

#include <string>

#include "framework/tasks/synchronizable.h"
#include "platform/core/stop_signal.h"

namespace zem {
class HostIdentity;
}  // namespace zem

namespace zem::zema {

class LumCommands;
class PortOpsManager;
class ZemManager;

/// What the operations on VIF ports work with.  Everything outlives the operations.
///
/// Threads: many operations at a time use it.
struct VifContext {
  PortOpsManager& ports;
  ZemManager& manager;
  LumCommands& lum;
  /// Has no id while this host is not set up for operation.
  HostIdentity& host;
  /// Held across each sequence of changes to ports, and never while the manager is waited for.  Whoever holds
  /// it may take the locks of the tables and of the port manager, not the other way round.
  Synchronizable& port_lock;
  /// Set when the host management ends; every pause of an operation ends with it.
  StopSignal& ending;
};

/// A port on one of the host's own port groups exists only for security.
inline bool IsSecurityOnly(const std::string& ls_id) { return ls_id.rfind("dvportgroup-", 0) == 0; }

/// The steps of one operation on a VM share the operation id up to its last "-".
inline std::string OpIdStem(const std::string& op_id) { return op_id.substr(0, op_id.rfind('-')); }

}  // namespace zem::zema
