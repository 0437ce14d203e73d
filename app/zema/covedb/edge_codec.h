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

/// What an edge stores apart from its host configuration.
namespace zem::zema {

/// 0, or -1 when the id, which is the store's key, is no uuid.
[[nodiscard]] int EncodeMaintenanceModeConfigMsg(
    const orlane::zem::switching::MaintenanceModeConfigMsg& message,
    orlane::zem::covedb::MaintenanceModeConfigMsg* out);

/// One object for each controller; one without a uuid is logged and skipped.  0, or -1 for an empty list.
[[nodiscard]] int EncodeControllerInfoMsgs(const orlane::zem::config::MpLcpMsg& message,
                                           std::list<orlane::zem::covedb::ControllerInfoMsg>* out);

}  // namespace zem::zema
