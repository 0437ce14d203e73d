#pragma once

#include <list>

namespace orlane::zem {
namespace config {
class MpLcpMsg;
}
namespace covedb {
class ControllerInfoMsg;
class MaintenanceModeConfigMsg;
}  // namespace covedb
namespace switching {
class MaintenanceModeConfigMsg;
}
}  // namespace orlane::zem

/// Conversion of the messages that an edge stores in addition to its host configuration.
namespace zem::zema {

/// Returns 0, or -1 when the id, which is the store's key, is not a uuid.
[[nodiscard]] int EncodeMaintenanceModeConfigMsg(
    const orlane::zem::switching::MaintenanceModeConfigMsg& message,
    orlane::zem::covedb::MaintenanceModeConfigMsg* out);

/// Makes one object for each controller; a controller without a uuid is logged and skipped.  Returns 0, or -1
/// for an empty list.
[[nodiscard]] int EncodeControllerInfoMsgs(const orlane::zem::config::MpLcpMsg& message,
                                           std::list<orlane::zem::covedb::ControllerInfoMsg>* out);

}  // namespace zem::zema
