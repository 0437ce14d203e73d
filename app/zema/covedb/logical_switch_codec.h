#pragma once

namespace orlane::zem {
namespace covedb {
class OpaqueLogSwitchConfigMsg;
class OpaqueLogSwitchConfigOpMsg;
}  // namespace covedb
namespace switching {
class LogicalSwitchMsg;
}
}  // namespace orlane::zem

namespace zem::zema {

/// Adds one entry to `out`: a stored logical switch in the manager's form.  `payload` is the object before
/// the change, from which the entry of a removal is made.  Always returns 0; an unknown operation is logged
/// and adds no entry.
int DecodeOpaqueLogSwitchMsg(const orlane::zem::covedb::OpaqueLogSwitchConfigMsg& config,
                             const orlane::zem::covedb::OpaqueLogSwitchConfigOpMsg& op,
                             const orlane::zem::covedb::OpaqueLogSwitchConfigMsg& payload,
                             orlane::zem::switching::LogicalSwitchMsg* out);

}  // namespace zem::zema
