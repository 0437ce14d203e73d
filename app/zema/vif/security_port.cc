#include "app/zema/vif/security_port.h"

#include "app/zema/hostlib/port_props.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/vif/vif_context.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "VifHandlerThread";

constexpr int kTries = 3;
constexpr Duration kBetween = std::chrono::seconds(1);

void ClearStale(VifContext& context, const PortLocation& at, const std::string& vif) {
  const Synchronizer lock(context.port_lock, __FILE__, __LINE__);
  std::string stored;
  if (context.ports.properties().GetPortExtraConfig(at.dvs, at.port, port_props::kExternalId, &stored) != 0)
    return;
  if (stored.empty() || stored == vif) return;
  ZLOG_INFO("[%s] dvport [%s] has stale vifId [%s], clearing all existing extra config", kTag,
            at.port.c_str(), stored.c_str());
  if (!context.ports.properties().ClearPortOpaqueData(at.dvs, at.port)) {
    ZLOG_WARN("[%s] dvport [%s] keeps what was written on it", kTag, at.port.c_str());
  }
}

Outcome SetAll(VifContext& context, const PortLocation& at, const SecurityTie& tie) {
  const struct {
    const char* key;
    const std::string& value;
  } rows[] = {
      {port_props::kSecurityEnable, port_props::kTrue},
      {port_props::kExternalId, tie.vif},
      {port_props::kOpaqueNetworkId, tie.ls},
      {port_props::kLogicalPortId, tie.logical_port},
  };
  const Synchronizer lock(context.port_lock, __FILE__, __LINE__);
  for (const auto& row : rows) {
    Outcome set = context.ports.properties().SetPortExtraConfig(at.dvs, at.port, row.key, row.value);
    if (!set) return set;
  }
  return Outcome::Done();
}

}  // namespace

std::string SecurityOriginOf(const VifRequest& request) {
  return request.security_switch_id.empty() ? request.port_id
                                            : request.security_switch_id + ":" + request.port_id;
}

std::optional<PortLocation> FindSecurityPort(VifContext& context, const VifRequest& request) {
  const std::string origin = SecurityOriginOf(request);
  if (const size_t colon = origin.find(':'); colon != std::string::npos) {
    return PortLocation{origin.substr(0, colon), origin.substr(colon + 1)};
  }
  PortLocation at;
  std::string path;
  if (context.ports.search().FindPortByVifUuid(request.vif_id, request.ls_id, &path, &at) &&
      (request.port_id.empty() || request.port_id == at.port)) {
    return at;
  }
  auto of_key = context.ports.search().PortsOfKey(request.port_id);
  if (of_key.size() != 1) return std::nullopt;
  return std::move(of_key.front());
}

Outcome TieSecurityPort(VifContext& context, const PortLocation& at, const SecurityTie& tie) {
  ClearStale(context, at, tie.vif);
  for (int failed = 1;; ++failed) {
    Outcome tied = SetAll(context, at, tie);
    if (tied) return tied;
    if (failed == kTries) {
      ZLOG_ERROR("44205", "[PortOp] Failed [%d] times to set port [%s] extra-configs, error [%s]", kTries,
                 at.port.c_str(), tied.error().c_str());
      return tied;
    }
    ZLOG_ERROR("44205", "[PortOp] Failed to set port [%s] extra-configs, error [%s]. Retrying",
               at.port.c_str(), tied.error().c_str());
    if (context.ending.WaitFor(kBetween)) return tied;
  }
}

void UntieSecurityPort(VifContext& context, const VifRequest& request) {
  if (request.security_switch_id.empty() || request.port_id.empty()) return;
  constexpr const char* kSource = "VifDvportThread";
  const char* const dvs = request.security_switch_id.c_str();
  const char* const port = request.port_id.c_str();
  std::string holder;
  if (context.ports.properties().GetPortExtraConfig(dvs, port, port_props::kExternalId, &holder) == 0 &&
      !request.vif_id.empty() && holder != request.vif_id) {
    ZLOG_INFO("[%s] dvport [%s] is of vif [%s] by now, not of [%s]", kSource, port, holder.c_str(),
              request.vif_id.c_str());
    return;
  }
  ZLOG_INFO("[%s] Clearing security extra config from dvs [%s] lport [%s] on detach", kSource, dvs, port);
  if (!context.ports.properties().ClearPortOpaqueData(dvs, port)) {
    ZLOG_WARN("[%s] dvport [%s] keeps what was written on it", kSource, port);
    return;
  }
  ZLOG_INFO("[%s] Cleared security extra config from dvs [%s] lport [%s] on detach", kSource, dvs, port);
}

}  // namespace zem::zema
