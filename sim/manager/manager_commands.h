#pragma once

namespace zem::sim {

class CommandTable;
class Manager;

/// Registers the commands for the proxy, the APHs and the manager.  `manager` has to outlive the table.
void RegisterManagerCommands(CommandTable& table, Manager& manager);

}  // namespace zem::sim
