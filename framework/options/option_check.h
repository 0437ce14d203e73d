#pragma once

#include <string>
#include <vector>

#include "framework/options/option_value.h"

namespace zem::Tarvik {

/// What the daemon would make of a file.
struct OptionCheck {
  std::vector<OptionFault> faults;  ///< in order of the lines
  /// The daemon, or the part of it that reads the file, would not use it.
  bool unusable = false;
  std::string json;  ///< every option of the file with its value in force, and the faults
};

/// Reads one of the daemon's files of options at `path` as the daemon does; its content tells which one it
/// is.
OptionCheck CheckOptions(const std::string& path);

/// "FILE:LINE: KEY: what", a line each; empty when all is well.
std::string FaultLines(const std::string& path, const OptionCheck& check);

}  // namespace zem::Tarvik
