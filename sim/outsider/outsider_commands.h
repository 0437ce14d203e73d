#pragma once

namespace zem::sim {

class CommandTable;

/// Registers what another program of the host tries that runs as an unprivileged user: it has no rights of
/// its own, belongs to no group, and looks for what the daemon leaves open to it.
void RegisterOutsiderCommands(CommandTable& table);

}  // namespace zem::sim
