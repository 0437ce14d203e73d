#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "app/zema/hostconfig/leaving_switches.h"
#include "app/zema/hostswitch/dvs_config_info.h"

namespace zem::zema {

/// Reconnects the router ports of the switches after the switches changed.
///
/// Threads: the thread of host configurations.
class RouterReconnection {
 public:
  using Config = orlane::zem::switching::HostConfigMsg;
  using RouterMacs = LeavingSwitches::RouterMacs;

  RouterReconnection(HostConfigContext& context, ErrorSink& errors) : context_(context), errors_(errors) {}

  /// Reads the teaming with which the switches' router ports are connected.
  void ReadTeaming(const std::vector<HostDvs>& switches);

  /// Reconnects the routers of the previous configuration whose switches still exist, then those of `config`.
  /// From now on the health is published on the switches of `config`.
  void ReconnectVdrPorts(const Config& config, const RouterMacs& before, bool upgrade);

 private:
  HostConfigContext& context_;
  ErrorSink& errors_;
  std::vector<DvsConfigInfo> infos_;
};

/// Reconnects, at the start of the agent, the routers of the switches that the host has.
void ReconnectRoutersAtStart(HostConfigContext& context, const std::vector<HostDvs>& switches);

/// MAC addresses by switch id; zero where there is no router.
using HealthMacs = std::map<std::string, std::array<uint8_t, 6>>;
HealthMacs RouterMacsOfHealth(const orlane::zem::switching::HostConfigMsg& config);
LeavingSwitches::RouterMacs RouterMacTexts(const HealthMacs& macs);

}  // namespace zem::zema
