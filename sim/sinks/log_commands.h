#pragma once

namespace zem::sim {

class CommandTable;
class LogSink;

/// "log/...": waits for lines of the node's log and looks through them.  `log` has to outlive the table's
/// use.
void RegisterLogCommands(CommandTable& table, const LogSink& log);

}  // namespace zem::sim
