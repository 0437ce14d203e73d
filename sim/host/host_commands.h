#pragma once

namespace zem::sim {

class CommandTable;
class HostState;

/// Commands over the simulated host: what it has, what its management script does wrong, its processes.
/// `state` has to outlive the table's use.
void RegisterHostCommands(CommandTable& table, const HostState& state);

}  // namespace zem::sim
