#pragma once

#include "platform/switchlib/switchlib.h"
#include "sim/switch/tree/value_list.h"

/// The object to which the library's handle points.
struct DVSData {
  zem::sim::ValueList list;
};

namespace zem::sim {

/// Returns true when the handle was allocated and has not been freed.
bool IsLiveHandle(const DVSData* data);
/// Makes a copy that the caller of the library has to free.  Returns 0 or DVS_FAILURE.
uint32_t GiveBytes(std::string_view bytes, void** out, uint32_t* length);

}  // namespace zem::sim
