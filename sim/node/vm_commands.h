#pragma once

namespace zem::sim {

class CommandTable;
class HostState;
class Manager;
class VirtualMachines;

/// Registers the commands behind "vm".  All arguments have to outlive the table.
void RegisterVmCommands(CommandTable& table, VirtualMachines& machines, Manager& manager,
                        const HostState& host);

}  // namespace zem::sim
