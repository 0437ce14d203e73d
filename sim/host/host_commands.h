#pragma once

namespace zem::sim {

class CommandTable;
class HostState;

/// Registers the commands over the simulated host: its objects, the faults of its management script, its
/// processes.  `state` has to outlive the table.
void RegisterHostCommands(CommandTable& table, const HostState& state);

}  // namespace zem::sim
