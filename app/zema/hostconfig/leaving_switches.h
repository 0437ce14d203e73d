#pragma once

#include <map>
#include <string>
#include <vector>

#include "app/zema/proxy/host_switch_lists.h"

namespace orlane::zem::switching {
class HostConfigMsg;
}

namespace zem::zema {

class ErrorSink;
struct HostConfigContext;

/// Removes the switches that a configuration no longer has, and the router ports that change.
///
/// Threads: the host configuration's.
class LeavingSwitches {
 public:
  using Config = orlane::zem::switching::HostConfigMsg;
  /// The router's MAC address as text, by switch id; empty when there is no router.
  using RouterMacs = std::map<std::string, std::string>;

  LeavingSwitches(HostConfigContext& context, ErrorSink& errors) : context_(context), errors_(errors) {}

  /// Clears the teaming of the switches that leave.
  void ClearTeaming(const Config& config, const std::vector<HostDvs>& existing);

  /// Returns true when the switches must not be configured any further; the error has then been added to the
  /// errors.  `before` holds the router addresses of the configuration in force.
  [[nodiscard]] bool DisconnectVdrPortsAndResetHostSwitches(const Config& config, bool reset, bool upgrade,
                                                            const std::vector<HostDvs>& existing,
                                                            const RouterMacs& before, bool* hot_swap);

  static RouterMacs RouterMacsOf(const Config& config);

 private:
  void DisconnectVdrPorts(const RouterMacs& before, const RouterMacs& after);
  void UnsetSpf(const Config& config, const std::vector<HostDvs>& existing);
  void UnsetSecurity(const Config& config, const std::vector<HostDvs>& existing);
  bool ApplyDvsList(const std::string& list, const std::string& names, bool* hot_swap);
  bool UnloadRouters(const RouterMacs& after);

  HostConfigContext& context_;
  ErrorSink& errors_;
};

}  // namespace zem::zema
