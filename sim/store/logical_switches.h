#pragma once

#include <cstdint>
#include <string>

#include "proto/covedb/covedb.pb.h"

namespace orlane::zem::covedb {
class OpaqueLogSwitchConfigMsg;
}

namespace zem::sim {

/// Logical switches by number, as a controller would write them; a number always gives the same switch.
struct SwitchRange {
  uint32_t first = 1;
  uint32_t count = 1;
  /// Number of transport zones over which the switches are distributed.
  uint32_t zones = 1;
  int32_t revision = 1;
};

/// For number 17 in revision 3: "ls-17" at "/infra/segments/ls-17".
orlane::zem::covedb::OpaqueLogSwitchConfigMsg MakeLogicalSwitch(uint32_t number, uint32_t zones,
                                                                int32_t revision);
/// The uuid as text.
std::string LogicalSwitchUuid(uint32_t number);
std::string TransportZoneUuid(uint32_t number);

/// One transaction: the switches, followed by the barrier.  With `transport_node` it begins with the node's
/// object.
orlane::zem::covedb::ModifyRequestMsg PutLogicalSwitches(const SwitchRange& range, uint64_t barrier,
                                                         bool transport_node);
orlane::zem::covedb::ModifyRequestMsg DeleteLogicalSwitches(const SwitchRange& range, uint64_t barrier);

}  // namespace zem::sim
