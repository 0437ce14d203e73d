#pragma once

namespace zem::sim {

class CommandTable;
class HostManagement;

/// "host-management" and "corvd/...": the host management daemon's socket, what it asks and what is answered;
/// the host's vNIC updates.  `daemon` has to outlive the table's use.
void RegisterCorvdCommands(CommandTable& table, HostManagement& daemon);

}  // namespace zem::sim
