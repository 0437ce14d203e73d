#pragma once

#include <memory>

#include "app/ctxteng/guest/endvat_lib.h"
#include "sim/guest/library/endvat_library.h"
#include "sim/guest/library/memory_link.h"

namespace zem::sim::guest {

/// The guest event library over a world of the same process.
std::shared_ptr<Ctxt::IEndvatLib> MakeSimEndvatLib(GuestWorld& world);

}  // namespace zem::sim::guest
