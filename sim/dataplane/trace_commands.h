#pragma once

namespace zem::sim {

class CommandTable;
class TraceAgent;

/// Registers the commands about the dataplane agent's traces.  `agent` has to outlive the table.
void RegisterTraceCommands(CommandTable& table, TraceAgent& agent);

}  // namespace zem::sim
