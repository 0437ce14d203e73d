#pragma once

#include <cstdint>

namespace Ctxt::EndvatUtil {

/// The name of a status of the guest event library; logs an unknown one.
const char* ErrorName(uint32_t status);
/// The name of a status of the multiplexer; logs an unknown one.
const char* MuxErrorName(uint32_t status);

}  // namespace Ctxt::EndvatUtil
