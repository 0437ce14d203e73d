#pragma once

#include <functional>
#include <string>

#include "app/zema/state/realization_options.h"

namespace zem::zema {

/// The host's versions, read once at set-up.
struct VersionInfo {
  enum class Distribution { kNone, kUbuntu, kRedHat, kSuse };

  bool hypervisor = false;
  HostVersion host;
  Distribution distribution = Distribution::kNone;
};

/// Runs a shell command; returns its exit status, or -1 when it could not be run, and sets `output`.
using ShellCommand = std::function<int(const std::string& command, std::string* output)>;

/// Returns false, with an error line, when the host is not of a known kind.
[[nodiscard]] bool InitVersionInfo(const ShellCommand& shell, VersionInfo* info);

/// Runs the command on the host itself.
int RunShell(const std::string& command, std::string* output);

}  // namespace zem::zema
