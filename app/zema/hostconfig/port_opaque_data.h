#pragma once

#include <string>

namespace orlane::zem::switching {
class HostConfigMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

class ErrorSink;
struct HostConfigContext;

/// Writes, onto the ports that have a VIF, the data that ties them to it, so that other users of the switches
/// recognise the ports that existed before the agent.
///
/// Threads: the host configuration's.
void ApplyOpaqueDataOnPorts(HostConfigContext& context, const orlane::zem::switching::HostConfigMsg& config,
                            ErrorSink& errors);

/// Removes from all ports of the switch the data that ties them to a VIF, one port after the other.
void ClearOpaqueDataOnPorts(HostConfigContext& context, const std::string& dvs);

}  // namespace zem::zema
