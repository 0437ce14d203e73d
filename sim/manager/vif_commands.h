#pragma once

namespace zem::sim {

class CommandTable;
class Manager;

/// Registers the commands "vif/...".  `manager` has to outlive the table.
void RegisterVifCommands(CommandTable& table, Manager& manager);

}  // namespace zem::sim
