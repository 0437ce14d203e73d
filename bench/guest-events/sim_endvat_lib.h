#pragma once

#include <memory>

#include "app/ctxteng/guest/endvat_lib.h"
#include "sim/guest/library/endvat_library.h"
#include "sim/guest/library/memory_link.h"

namespace zem::sim::guest {

/// Puts another handler of network events in front of the caller's.
using WrapNetworkHandler = ENDVAT_NETWORK_HANDLER (*)(ENDVAT_NETWORK_HANDLER handler);

/// The guest event library over a world of the same process.  `wrap` may be null.
std::shared_ptr<Ctxt::IEndvatLib> MakeSimEndvatLib(GuestWorld& world, WrapNetworkHandler wrap = nullptr);

}  // namespace zem::sim::guest
