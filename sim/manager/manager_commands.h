#pragma once

namespace zem::sim {

class CommandTable;
class Manager;

/// The commands by which a person or a scenario works on the proxy, the APHs and the manager.  `manager`
/// outlives the table.
void RegisterManagerCommands(CommandTable& table, Manager& manager);

}  // namespace zem::sim
