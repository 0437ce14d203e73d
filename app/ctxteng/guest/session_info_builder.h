#pragma once

#include <cstdint>
#include <memory>

#include "app/ctxteng/base/user_session_info.h"
#include "app/ctxteng/base/vm_data.h"
#include "platform/endvat/endvat.h"

namespace Ctxt {

class UserTables;

/// Makes the record of a system event of the library's type 0 to 7.  In the callback of the event.  Throws
/// EndvatApiError when the library does not say what happened.
std::shared_ptr<UserSessionInfo> BuildUserSessionInfo(uint32_t type, ENDVAT_HANDLE handle, const VmData& vm,
                                                      const UserTables& users);

/// Logs the record at debug level.
void Dump(const UserSessionInfo& info);

/// Learns who is logged on to a desktop that was running before the engine.  In a callback of the guest.
/// Returns the library's status.
uint32_t FetchUserInfo(const VmData& vm, UserTables& users);

}  // namespace Ctxt
