#pragma once

#include "platform/switchlib/switchlib.h"
#include "sim/switch/tree/value_list.h"

/// What the library's handle points to.
struct DVSData {
  zem::sim::ValueList list;
};

namespace zem::sim {

/// Whether the handle is one that was made and not freed.
bool IsLiveHandle(const DVSData* data);
/// A copy that the caller of the library frees.  0, or DVS_FAILURE.
uint32_t GiveBytes(std::string_view bytes, void** out, uint32_t* length);

}  // namespace zem::sim
