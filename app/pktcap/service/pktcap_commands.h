#pragma once

#include <vector>

#include "framework/cli/cli_command.h"

namespace zem::Tarvik {

class PktCapApp;

/// The operators' commands of packet capture.  `app` outlives the command server.
std::vector<CliCommand> PktCapCommands(PktCapApp& app);

/// The reply of "packet-capture/status".
std::string CaptureStatusText(bool running, bool probe_running);

}  // namespace zem::Tarvik
