#pragma once

namespace zem::sim {

class CommandTable;
class EdgeService;

/// Registers "edge/...": the state of the edge's own service and the faults of its answers.  `service` has to
/// outlive the table.
void RegisterEdgeCommands(CommandTable& table, EdgeService& service);

}  // namespace zem::sim
