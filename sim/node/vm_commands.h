#pragma once

namespace zem::sim {

class CommandTable;
class HostState;
class Manager;
class VirtualMachines;

/// The commands behind "vm".  All outlive the table.
void RegisterVmCommands(CommandTable& table, VirtualMachines& machines, Manager& manager,
                        const HostState& host);

}  // namespace zem::sim
