#pragma once

#include <string>

namespace orlane::zem::switching {
class HostConfigMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

class ErrorSink;
struct HostConfigContext;

/// Writes onto the ports that have a VIF what ties them to it, so that the other users of the switches see
/// the ports that were there before the agent.
///
/// Threads: the host configuration's.
void ApplyOpaqueDataOnPorts(HostConfigContext& context, const orlane::zem::switching::HostConfigMsg& config,
                            ErrorSink& errors);

/// Takes from all ports of the switch what ties them to a VIF, one after the other.
void ClearOpaqueDataOnPorts(HostConfigContext& context, const std::string& dvs);

}  // namespace zem::zema
