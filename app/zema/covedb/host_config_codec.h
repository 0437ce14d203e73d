#pragma once

#include <string>

namespace orlane::zem {
namespace covedb {
class HostSwitchMsg;
class RealizedHostConfigMsg;
}  // namespace covedb
namespace switching {
class HostConfigMsg;
class HostSwitchMsg;
}  // namespace switching
}  // namespace orlane::zem

/// Converts a host configuration between the manager's form and the store's.  Every field keeps its presence.
/// A field that cannot be converted is logged and left out; the rest is still converted.
namespace zem::zema {

/// Returns 0, or -1 when the id, which is the store's key, is not a uuid.
[[nodiscard]] int EncodeHostConfigMsg(const orlane::zem::switching::HostConfigMsg& message,
                                      orlane::zem::covedb::RealizedHostConfigMsg* out);

/// Also reads the headers of the manager's message, so that the message can be answered after a restart.
/// Returns 0, or -1 when there are no headers; `out` is filled in either case.
[[nodiscard]] int DecodeHostConfigMsg(const orlane::zem::covedb::RealizedHostConfigMsg& stored,
                                      orlane::zem::switching::HostConfigMsg* out, std::string* correlation_id,
                                      std::string* reply_to);

void EncodeHostSwitchMsg(const orlane::zem::switching::HostSwitchMsg& message,
                         orlane::zem::covedb::HostSwitchMsg* out);
void DecodeHostSwitchProfiles(const orlane::zem::covedb::HostSwitchMsg& stored,
                              orlane::zem::switching::HostSwitchMsg* out);

}  // namespace zem::zema
