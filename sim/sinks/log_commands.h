#pragma once

namespace zem::sim {

class CommandTable;
class LogSink;

/// Registers "log/...": commands that wait for lines of the node's log and search it.  `log` has to outlive
/// the table.
void RegisterLogCommands(CommandTable& table, const LogSink& log);

}  // namespace zem::sim
