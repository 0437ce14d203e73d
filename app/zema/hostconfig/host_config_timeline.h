#pragma once

#include <string_view>

#include "platform/timeline/operation.h"

namespace orlane::zem::switching {
class HostConfigMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

/// Begins the timeline of a host configuration; it is found by the ids of configuration and node, and by the
/// ids and names of the switches.
timeline::OperationPtr BeginHostConfig(const orlane::zem::switching::HostConfigMsg& message,
                                       std::string_view what);

}  // namespace zem::zema
