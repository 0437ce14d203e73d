#pragma once

#include <vector>

#include "framework/cli_command.h"

namespace zem::Tarvik {

/// What operators may ask of the manager channel: "get/mpaclient".
std::vector<CliCommand> ManagerCommands();

}  // namespace zem::Tarvik
