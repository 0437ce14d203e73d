#pragma once

#include <string>
#include <vector>

namespace zem::sim {

class CommandTable;
class LogonReceiver;

/// Registers what is asked of the receiver of logons, which outlives the table.
void RegisterLogonCommands(CommandTable& table, LogonReceiver& receiver);

/// The received logons in lines for a person; none before the first.
std::vector<std::string> DrawLogons(const LogonReceiver& receiver);

}  // namespace zem::sim
