#pragma once

#include "framework/status/part_state.h"

namespace zem::Tarvik {

/// "host configuration": whether the newest one that has ended could be applied; after one that could not,
/// the node is not what the manager wants.
PartState HostConfigState();

}  // namespace zem::Tarvik
