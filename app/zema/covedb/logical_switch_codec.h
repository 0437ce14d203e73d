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
/// the change, from which a removal is told.  Always 0; an unknown operation is logged and leaves none.
int DecodeOpaqueLogSwitchMsg(const orlane::zem::covedb::OpaqueLogSwitchConfigMsg& config,
                             const orlane::zem::covedb::OpaqueLogSwitchConfigOpMsg& op,
                             const orlane::zem::covedb::OpaqueLogSwitchConfigMsg& payload,
                             orlane::zem::switching::LogicalSwitchMsg* out);

}  // namespace zem::zema
