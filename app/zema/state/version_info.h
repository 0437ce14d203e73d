#pragma once

#include <functional>
#include <string>

#include "app/zema/state/realization_options.h"

namespace zem::zema {

/// What the host runs, learned once at set-up.
struct VersionInfo {
  enum class Distribution { kNone, kUbuntu, kRedHat, kSuse };

  bool hypervisor = false;
  HostVersion host;
  Distribution distribution = Distribution::kNone;
};

/// Runs a shell command: its exit status, -1 when it could not be run; its output.
using ShellCommand = std::function<int(const std::string& command, std::string* output)>;

/// False, with an error line, when the host is of no known kind.
[[nodiscard]] bool InitVersionInfo(const ShellCommand& shell, VersionInfo* info);

/// The one on the host itself.
int RunShell(const std::string& command, std::string* output);

}  // namespace zem::zema
