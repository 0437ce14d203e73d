#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace zem::Tarvik {

/// Runs a script with `input`, which may hold a secret, on its standard input, and waits for its end.  Of
/// each of its outputs the last MiB is kept.  Returns the exit status; -1, after an error line, when the
/// script could not be run, ended by a signal, or was ended because of `*stop`.
[[nodiscard]] int ExecuteCmd(const std::vector<std::string>& argv, std::string input, std::string* output,
                             std::string* error, const std::atomic<bool>* stop);

}  // namespace zem::Tarvik
