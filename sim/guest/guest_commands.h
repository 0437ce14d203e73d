#pragma once

namespace zem::sim {
class CommandTable;
}

namespace zem::sim::guest {

class GuestWorld;
class MuxPeer;

/// Registers the commands of guests, and those of the multiplexer; `world` and `peer` outlive the tables.
void RegisterGuestCommands(CommandTable& table, GuestWorld& world);
void RegisterMuxCommands(CommandTable& table, GuestWorld& world, MuxPeer& peer);

}  // namespace zem::sim::guest
