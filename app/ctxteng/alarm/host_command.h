#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Ctxt {

/// Runs a shell command of the host for at most 10 seconds, and appends what it prints to `output`.  Ends
/// with everything that it started when `stop_fd` becomes readable.  Returns the exit code, or -1.
///
/// Threads: any thread that may block.
int RunHostCommand(const std::string& command, int stop_fd, std::string* output);

/// The words of an output, divided by white space.
std::vector<std::string> Fields(const std::string& output);

/// True for 1 to 20 decimal digits.
bool IsNumber(std::string_view text);

/// The text as one word of a shell command.
std::string ShellWord(std::string_view text);

}  // namespace Ctxt
