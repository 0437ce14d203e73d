#pragma once

#include <vector>

#include "framework/cli/cli_command.h"

namespace zem::Tarvik {

class ZemaApp;

/// The operators' commands of the realization: "zema/reset", "zema/reload_options", "zema/migration".  `app`
/// outlives the server.
std::vector<CliCommand> ZemaCommands(ZemaApp& app);

}  // namespace zem::Tarvik
