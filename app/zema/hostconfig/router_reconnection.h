#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "app/zema/hostconfig/leaving_switches.h"
#include "app/zema/hostswitch/dvs_config_info.h"

namespace zem::zema {

/// Brings the router ports of the switches back after the switches changed.
///
/// Threads: the host configuration's.
class RouterReconnection {
 public:
  using Config = orlane::zem::switching::HostConfigMsg;
  using RouterMacs = LeavingSwitches::RouterMacs;

  RouterReconnection(HostConfigContext& context, ErrorSink& errors) : context_(context), errors_(errors) {}

  /// What the switches' router ports are connected with.
  void ReadTeaming(const std::vector<HostDvs>& switches);

  /// Those of the configuration before, as far as their switches are still there, then those of `config`; the
  /// health is published on the switches of `config` from now on.
  void ReconnectVdrPorts(const Config& config, const RouterMacs& before, bool upgrade);

 private:
  HostConfigContext& context_;
  ErrorSink& errors_;
  std::vector<DvsConfigInfo> infos_;
};

/// The routers of the switches that the host has, when the agent starts.
void ReconnectRoutersAtStart(HostConfigContext& context, const std::vector<HostDvs>& switches);

/// By switch id; zero where there is no router.
using HealthMacs = std::map<std::string, std::array<uint8_t, 6>>;
HealthMacs RouterMacsOfHealth(const orlane::zem::switching::HostConfigMsg& config);
LeavingSwitches::RouterMacs RouterMacTexts(const HealthMacs& macs);

}  // namespace zem::zema
