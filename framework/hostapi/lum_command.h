#pragma once

#include "framework/cli/cli_command.h"

namespace zem::Tarvik {

/// The operators' command "get/lum": the links of the process's host API client.
CliCommand LumCommand();

}  // namespace zem::Tarvik
