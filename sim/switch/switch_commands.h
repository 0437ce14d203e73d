#pragma once

namespace zem::sim {

class CommandTable;
class LibraryFolder;
class SwitchState;

/// Registers "switch/..." commands.  Both have to outlive the table's use.
void RegisterSwitchCommands(CommandTable& table, SwitchState& state, LibraryFolder& libraries);

}  // namespace zem::sim
