#pragma once

#include "framework/cli/cli_command.h"

namespace Ctxt {

class GuestTable;

/// "get/guests": the guests that are on, with their events.  `guests` outlives the command server.
zem::Tarvik::CliCommand GuestsCommand(GuestTable& guests);

}  // namespace Ctxt
