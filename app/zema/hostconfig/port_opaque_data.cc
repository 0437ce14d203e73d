#include "app/zema/hostconfig/port_opaque_data.h"

#include <map>

#include "app/zema/hostconfig/host_config_context.h"
#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/proxy/error_sink.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr int kTries = 3;

// The data that ties a port to its VIF; the agent does not own a port without it.
struct Tie {
  std::string vif;
  std::string logical_port;
  std::string network;
};

bool SetWithRetries(HostConfigContext& context, const std::string& dvs, const std::string& port,
                    const char* key, const std::string& value) {
  if (value.empty()) return true;
  for (int failed = 1; failed <= kTries; ++failed) {
    const Outcome set = context.ports.properties().SetPortExtraConfig(dvs, port, key, value);
    if (set) return true;
    ZLOG_ERROR("44423", "[PortOp] Failed [%d] times to set port [%s] extra-configs, error [%s]", failed,
               port.c_str(), set.error().c_str());
  }
  return false;
}

// The VIFs that wait for their site configuration, by their ports.
std::map<std::string, std::string> VifsOfPorts(const HostConfigContext& context) {
  std::map<std::string, std::string> vifs;
  const auto requests = context.ports.site_configs().VifsForSiteConfig();
  for (const auto& [vif, request] : *requests) vifs[request->port_id] = vif;
  return vifs;
}

bool ApplyOnPort(HostConfigContext& context, const std::string& dvs, const std::string& port,
                 const std::map<std::string, std::string>& known) {
  const Synchronizer lock(context.port_lock, __FILE__, __LINE__);
  Tie tie;
  std::string security;
  context.ports.properties().GetPortExtraConfig(dvs, port, port_props::kExternalId, &tie.vif);
  context.ports.properties().GetPortExtraConfig(dvs, port, port_props::kLogicalPortId, &tie.logical_port);
  context.ports.properties().GetPortExtraConfig(dvs, port, port_props::kOpaqueNetworkId, &tie.network);
  context.ports.properties().GetPortExtraConfig(dvs, port, port_props::kSecurityEnable, &security);
  if (tie.vif.empty() || tie.logical_port.empty()) {
    ZLOG_INFO("[%s] vifId or logicalPortId is missing for [%s:%s]. Skip setting port opaque data",
              "ApplyOpaqueDataOnPorts", dvs.c_str(), port.c_str());
    return true;
  }
  if (const auto vif = known.find(port); vif != known.end() && vif->second != tie.vif) {
    ZLOG_INFO("[%s] dvport [%s:%s] has stale vifId [%s], clearing all existing extra config",
              "ApplyOpaqueDataOnPorts", dvs.c_str(), port.c_str(), tie.vif.c_str());
    return context.ports.properties().ClearPortOpaqueData(dvs, port);
  }
  return SetWithRetries(context, dvs, port, port_props::kLogicalPortId, tie.logical_port) &&
         SetWithRetries(context, dvs, port, port_props::kOpaqueNetworkId, tie.network) &&
         SetWithRetries(context, dvs, port, port_props::kExternalId, tie.vif) &&
         (security != port_props::kTrue ||
          SetWithRetries(context, dvs, port, port_props::kSecurityEnable, port_props::kTrue));
}

}  // namespace

void ApplyOpaqueDataOnPorts(HostConfigContext& context, const orlane::zem::switching::HostConfigMsg& config,
                            ErrorSink& errors) {
  bool good = true;
  const auto known = VifsOfPorts(context);
  for (const auto& host_switch : config.host_switches()) {
    PortList ports;
    const uint32_t result = context.library.SwitchPortList(host_switch.id(), &ports);
    if (result != 0) {
      if (result == kSwitchNotFound) continue;
      ZLOG_ERROR("44423", "[%s] %s", __func__, SwitchErrorText(result).c_str());
      good = false;
      continue;
    }
    for (size_t i = 0; i < ports.size(); ++i) {
      good = ApplyOnPort(context, host_switch.id(), ports[i], known) && good;
    }
  }
  if (good) return;
  ZLOG_ERROR("44423", "[%s] Failed to set port opaque data for port belonging to transport node [%s]",
             __func__, config.transport_node_id().c_str());
  errors.Add(ErrorSink::kGeneral, "Failed to set port opaque data.");
}

void ClearOpaqueDataOnPorts(HostConfigContext& context, const std::string& dvs) {
  PortList ports;
  const uint32_t result = context.library.SwitchPortList(dvs, &ports);
  if (result != 0 && result != kSwitchNotFound) {
    ZLOG_ERROR("44423", "[%s] %s", __func__, SwitchErrorText(result).c_str());
    return;
  }
  for (size_t i = 0; i < ports.size(); ++i) {
    const Synchronizer lock(context.port_lock, __FILE__, __LINE__);
    if (!context.ports.properties().ClearPortOpaqueData(dvs, ports[i])) {
      ZLOG_WARN("[%s] the port [%s] on [%s] keeps what was written on it", __func__, ports[i], dvs.c_str());
    }
  }
}

}  // namespace zem::zema
