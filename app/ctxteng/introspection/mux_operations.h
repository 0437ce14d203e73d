#pragma once

#include <cstdint>

namespace Ctxt {

/// What the multiplexer does with the solutions of a VM.
enum MuxOperation : uint32_t { kMuxUpdate = 1, kMuxDelete = 2 };

inline const char* MuxOperationName(uint32_t operation) {
  return operation == kMuxDelete ? "DELETE" : "UPDATE";
}

}  // namespace Ctxt
