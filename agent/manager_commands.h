#pragma once

#include <functional>
#include <vector>

#include "framework/cli/cli_command.h"

namespace zem::Tarvik {

/// What operators may ask of the manager channel: "get/mpaclient".
std::vector<CliCommand> ManagerCommands();

/// "agent/stop": the orderly end, where SIGTERM and SIGINT end the process at once.  `stop` makes the event
/// loop return.
CliCommand StopCommand(std::function<void()> stop);

}  // namespace zem::Tarvik
