#pragma once

#include <string>

#include "framework/tasks/outcome.h"
#include "platform/core/clock.h"

namespace zem::zema {

class PortAttached;
struct PortConfigSpec;
struct VifContext;
struct VifRequest;

/// The port as the manager describes it in its answer, or as a ready description of the request does.
PortConfigSpec PortDescriptionOf(const PortAttached& reply);
PortAttached PortAttachedOf(const PortConfigSpec& spec);

/// The VIF that the port gets: who asks without one is answered with the port's uuid, and knows the port by
/// it from then on.
const std::string& VifOfPort(const VifRequest& request, const PortAttached& reply);

/// Makes the port that the manager answered with, or brings it up to date, for the request's VIF.
/// The caller holds the port lock.
Outcome CreateLocalDvPort(VifContext& context, const VifRequest& request, TimePoint begun,
                          const PortAttached& reply);

}  // namespace zem::zema
