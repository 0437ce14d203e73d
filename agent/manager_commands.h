#pragma once

#include <functional>
#include <vector>

#include "framework/cli/cli_command.h"

namespace zem::Tarvik {

/// The operators' commands of the manager channel: "get/mpaclient".
std::vector<CliCommand> ManagerCommands();

/// The command "agent/stop", which stops the agent in order; SIGTERM and SIGINT end the process at once.
/// `stop` makes the event loop return.
CliCommand StopCommand(std::function<void()> stop);

}  // namespace zem::Tarvik
