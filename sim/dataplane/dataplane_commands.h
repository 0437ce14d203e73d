#pragma once

namespace zem::sim {

class CommandTable;
class DataplaneAgent;

/// Registers the dataplane agent's commands.  `agent` has to outlive the table.
void RegisterDataplaneCommands(CommandTable& table, DataplaneAgent& agent);

}  // namespace zem::sim
