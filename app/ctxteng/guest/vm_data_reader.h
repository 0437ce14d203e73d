#pragma once

#include <cstdint>

#include "app/ctxteng/base/vm_data.h"

namespace Ctxt {

/// Fills the record of a guest that has powered on, from the library and the guest's configuration file.  In
/// a callback of the guest.  Returns 0, or why there can be no record of the guest.
uint32_t FillVmData(VmData& vm);

/// Asks the guest for the versions of what it runs for introspection, unless they are known; `tick` is the
/// number of the timer event.  True when they have just become known.
bool FetchGiInfo(VmData& vm, uint32_t tick);

}  // namespace Ctxt
