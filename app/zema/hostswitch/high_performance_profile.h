#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "framework/tasks/synchronizable.h"

namespace orlane::zem::switching {
class HostSwitchMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

/// Property of a switch whose settings wait for the maintenance mode.
inline constexpr const char* kPendingUserActions = "com.orlane.zem.pendingUserActions";
inline constexpr const char* kMaintenanceModeAction = "maintenance_mode";

struct HighPerformanceSettings {
  /// Sets a host property of the switch with the id `dvs`; returns 0 or the library's code.  The value is a
  /// text.
  std::function<uint32_t(const std::string& dvs, const std::string& property, const std::string& value)>
      set_host_prop;
  std::function<uint32_t(const std::string& dvs, const std::string& property)> clear_host_prop;
  /// Whether the switch has the property.
  std::function<bool(const std::string& dvs, const std::string& property)> has_host_prop;
  /// Runs a shell command; returns its exit code and sets `output` to what it printed.
  std::function<int(const std::string& command, std::string* output)> run;

  HighPerformanceSettings();
};

/// Applies the high performance settings of switches to the datapath with the host's own script.
///
/// Threads: any that may wait; the object runs the script once at a time.
class HighPerformanceProfile {
 public:
  explicit HighPerformanceProfile(HighPerformanceSettings settings) : settings_(std::move(settings)) {}

  /// Returns true also when the switch has no such settings, and when they wait for the maintenance mode:
  /// only then is `pending` set.  Returns false with texts in `errors` when the settings cannot be applied.
  [[nodiscard]] bool ProcessHighPerformanceProfile(const orlane::zem::switching::HostSwitchMsg& host_switch,
                                                   std::vector<std::string>* errors, bool* pending);

 private:
  const HighPerformanceSettings settings_;
  Synchronizable lock_;  // one run of the script at a time
};

}  // namespace zem::zema
