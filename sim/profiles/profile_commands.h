#pragma once

namespace zem::sim {

class CommandTable;
class Store;

/// The commands "agent", "flow", "site", "raw" and "drop": profiles of the transport node, written to the
/// store together with the binding that lists them.  `store` outlives the table.
void RegisterProfileCommands(CommandTable& table, Store& store);

}  // namespace zem::sim
