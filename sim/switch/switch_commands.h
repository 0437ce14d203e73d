#pragma once

namespace zem::sim {

class CommandTable;
class LibraryFolder;
class SwitchState;

/// Registers the "switch/..." commands.  Both arguments have to outlive the table.
void RegisterSwitchCommands(CommandTable& table, SwitchState& state, LibraryFolder& libraries);

}  // namespace zem::sim
