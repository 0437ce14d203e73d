#pragma once

#include <vector>

#include "framework/cli/cli_command.h"

namespace Ctxt {

class GuestTable;

/// "get/protocolMask" and "set/protocolMask".  `guests` outlives the command server.
std::vector<zem::Tarvik::CliCommand> ProtocolMaskCommands(GuestTable& guests);

}  // namespace Ctxt
