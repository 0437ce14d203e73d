#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "framework/options/option_value.h"

namespace zem::Tarvik {

/// What the daemon would make of a file.
struct OptionCheck {
  std::vector<OptionFault> faults;  ///< in order of the lines
  /// The daemon would not start with it.
  bool unusable = false;
  std::string json;  ///< every option with its value in force, and the faults
};

/// Reads the options file at `path` as the daemon does.
OptionCheck CheckOptions(const std::string& path);

/// "FILE:LINE: KEY: what", a line each; empty when all is well.
std::string FaultLines(const std::string& path, const OptionCheck& check);

}  // namespace zem::Tarvik
