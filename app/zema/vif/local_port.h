#pragma once

#include <string>

#include "framework/tasks/outcome.h"
#include "platform/core/clock.h"

namespace zem::zema {

class PortAttached;
struct PortConfigSpec;
struct VifContext;
struct VifRequest;

/// Convert between the manager's answer and the description of a port.
PortConfigSpec PortDescriptionOf(const PortAttached& reply);
PortAttached PortAttachedOf(const PortConfigSpec& spec);

/// The VIF that the port gets.  A requester that names no VIF is answered with the port's uuid and refers to
/// the port by it from then on, so that uuid stands in for the VIF.
const std::string& VifOfPort(const VifRequest& request, const PortAttached& reply);

/// Creates or updates the port that the manager answered with, for the request's VIF.  The caller holds the
/// port lock.
Outcome CreateLocalDvPort(VifContext& context, const VifRequest& request, TimePoint begun,
                          const PortAttached& reply);

}  // namespace zem::zema
