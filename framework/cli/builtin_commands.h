#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "framework/cli/cli_command.h"

namespace zem::Tarvik {

/// The commands of the frame itself: the levels of the daemon's and the libraries' lines, workflow tracing,
/// the process's queues.
std::vector<CliCommand> BuiltinCommands();

/// One client of the manager client, as "get/mpaclient" shows it.
struct MpaClientRow {
  std::string app;
  int status;  ///< 1 is down, 2 is up
  int64_t cookie;
};

/// "get/mpaclient" over the manager client's registry, which `rows` reads on the server's thread.
CliCommand MpaClientCommand(std::function<std::vector<MpaClientRow>()> rows);

}  // namespace zem::Tarvik
