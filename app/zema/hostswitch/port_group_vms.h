#pragma once

namespace orlane::zem::switching {
class HostConfigMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

class LumCommands;

/// Adds the VMs that are connected to the host's distributed port groups to the message.  A failure is logged
/// and leaves the message unchanged.
///
/// Threads: one, which is not a provider's: waits for the host.
void RetrieveVmsConnectedToDvpg(LumCommands& lum, orlane::zem::switching::HostConfigMsg* config);

}  // namespace zem::zema
