#pragma once

#include <cstdint>
#include <functional>

#include "framework/cli/cli_command.h"

namespace Ctxt {

class Idfw;

/// "get/idfwStatus".  `idfw` outlives the command server; `active_clients` gives the clients that run, as
/// bits.
zem::Tarvik::CliCommand IdfwStatusCommand(const Idfw& idfw, std::function<uint32_t()> active_clients);

}  // namespace Ctxt
