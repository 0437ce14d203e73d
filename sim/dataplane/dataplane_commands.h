#pragma once

namespace zem::sim {

class CommandTable;
class DataplaneAgent;

/// `agent` has to outlive the table's use.
void RegisterDataplaneCommands(CommandTable& table, DataplaneAgent& agent);

}  // namespace zem::sim
