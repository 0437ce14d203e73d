#pragma once

namespace zem::sim {

class CommandTable;
class HostManagement;

/// Registers "host-management" and "corvd/...": the host management daemon's socket, its requests and their
/// answers, and the host's vNIC updates.  `daemon` has to outlive the table.
void RegisterCorvdCommands(CommandTable& table, HostManagement& daemon);

}  // namespace zem::sim
