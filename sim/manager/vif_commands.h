#pragma once

namespace zem::sim {

class CommandTable;
class Manager;

/// The commands "vif/...".  `manager` outlives the table.
void RegisterVifCommands(CommandTable& table, Manager& manager);

}  // namespace zem::sim
