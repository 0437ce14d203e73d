#pragma once

namespace zem::sim {

class CommandTable;
class EdgeService;

/// "edge/...": the edge's own service and how it answers.  `service` has to outlive the table's use.
void RegisterEdgeCommands(CommandTable& table, EdgeService& service);

}  // namespace zem::sim
