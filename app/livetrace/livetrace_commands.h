#pragma once

#include <vector>

#include "framework/cli/cli_command.h"

namespace zem::Tarvik {

/// What operators may ask about live traces, also while the application does not run.
std::vector<CliCommand> LivetraceCommands();

}  // namespace zem::Tarvik
