#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>
#include <vector>

#include "platform/core/clock.h"

namespace zem::Tarvik {

/// Runs a script with `input`, which may hold a secret, on its standard input, and waits for its end.  Of
/// each of its outputs the last MiB is kept.  Returns the exit status; -1, after an error line, when the
/// script could not be run, ended by a signal, or was ended because of `*stop`; 124, after an error line,
/// when it was ended because it ran longer than `limit`.  `*pid` is its process id, -1 when it was not run.
[[nodiscard]] int ExecuteCmd(const std::vector<std::string>& argv, std::string input, std::string* output,
                             std::string* error, const std::atomic<bool>* stop, Duration limit, pid_t* pid);

}  // namespace zem::Tarvik
