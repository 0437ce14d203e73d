#include "app/zema/vif/site_config.h"

#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/manager/port_attached.h"
#include "app/zema/manager/zem_manager.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/vif/local_port.h"
#include "app/zema/vif/vif_context.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kPendingConf = "PENDING_CONF";

constexpr const char* kSiteConfigKeys[] = {
    "com.orlane.port.extraConfig.vm.tagset",  "com.orlane.port.extraConfig.vm.tagset1",
    "com.orlane.port.extraConfig.vm.tagset2", "com.orlane.port.extraConfig.vm.tagset3",
    "com.orlane.port.extraConfig.vm.tagset4", "com.orlane.port.extraConfig.vm.tagset5",
    "com.orlane.port.extraConfig.vm.tagset6", "com.orlane.port.extraConfig.vm.tagset7",
    "com.orlane.port.extraConfig.vm.tagset8", "com.orlane.port.extraConfig.vm.tagset9",
    "com.orlane.port.extraConfig.global.id",
};

// False with the reason in the request.
bool SendReplyToMp(VifContext& context, VifRequest& request,
                   std::list<std::pair<std::string, std::string>> values) {
  const Outcome sent = context.manager.MP_UpdateVnicAttachment(request.op_id, request.vif_id, request.ls_id,
                                                               request.port_id, std::move(values));
  if (!sent) {
    ZLOG_ERROR("42075", "MP_UpdateVnicAttachment() call failed: %s\n", sent.error().c_str());
    request.error_text = sent.error();
    return false;
  }
  context.ports.site_configs().RemoveVifForSiteConfig(request.vif_id);
  return true;
}

}  // namespace

std::list<std::pair<std::string, std::string>> CollectSiteConfig(VifContext& context,
                                                                 const PortLocation& at) {
  std::list<std::pair<std::string, std::string>> values;
  for (const char* const key : kSiteConfigKeys) {
    std::string value;
    const uint32_t result = context.ports.properties().GetPortExtraConfig(at.dvs, at.port, key, &value);
    if (result == 0) {
      values.emplace_back(key, std::move(value));
    } else if (result != kSwitchNotFound) {
      ZLOG_ERROR("42075", "Failed to retrieve site config for prop [%s]: %s\n", key,
                 SwitchErrorText(result).c_str());
    }
  }
  ZLOG_INFO("Finished collecting site config for port [%s]", at.port.c_str());
  return values;
}

void ProcessLogicalPortInitState(VifContext& context, const VifRequest& request, const PortAttached& reply) {
  const auto span =
      wft::WorkflowUtil::StartChildSpan("HandlerThread.ProcessLogicalPortInitState", wft::kTraceInfo);
  if (reply.init_state != kPendingConf) return;
  ZLOG_INFO("MP set initState to [%s] for port [%s]. Fetching site config from corvd",
            reply.init_state.c_str(), reply.port_id.c_str());
  auto fetch = std::make_shared<VifRequest>();
  fetch->op_code = VifRequest::kFetchSiteConfig;
  fetch->op_id = request.op_id;
  fetch->vif_id = VifOfPort(request, reply);
  fetch->ls_id = request.ls_id;
  fetch->gcf_path = request.gcf_path;
  fetch->port_id = reply.port_id;
  fetch->zone_id = reply.zone_id;
  const std::string& vif = fetch->vif_id;
  context.ports.site_configs().AddVifForSiteConfig(vif, fetch);
  ZLOG_INFO("Enqueued VIF [%s] to the list of VIFs", vif.c_str());
}

void UpdateSiteConfigurationOnPort(VifContext& context, VifRequest& request) {
  const PortLocation at{context.ports.zones().GetDvsIdForTz(request.zone_id), request.port_id};
  if (at.dvs.empty()) {
    request.error_text = "DVS id for transport zone [" + request.zone_id + "] was not found";
    return;
  }
  if (!SendReplyToMp(context, request, CollectSiteConfig(context, at))) return;
  const Synchronizer lock(context.port_lock, __FILE__, __LINE__);
  if (const Outcome cleared = context.ports.changes().ClearAttachmentState(at.dvs, at.port); !cleared) {
    ZLOG_ERROR("42075", "Failed to clear attachment state on port [%s]: %s", at.port.c_str(),
               cleared.error().c_str());
  }
  ZLOG_INFO("Successfully replied to MP for port [%s]", at.port.c_str());
}

std::optional<PriorSiteConfig> TakePriorPendingConf(VifContext& context, const VifRequest& request,
                                                    const PortAttached& reply) {
  if (reply.init_state != kPendingConf) return std::nullopt;
  ZLOG_INFO("MP set initState to [%s] for port [%s]. Fetching VM tags from prior port",
            reply.init_state.c_str(), reply.port_id.c_str());
  PortLocation prior;
  if (!context.ports.search().FindPortToFetchVMTags(request.vif_id, reply.old_switch_id, request.gcf_path,
                                                    reply.zone_id, &prior)) {
    ZLOG_INFO("Failed to lookup prior port for VIF [%s]", request.vif_id.c_str());
    return std::nullopt;
  }
  PriorSiteConfig taken{reply.port_id, CollectSiteConfig(context, prior)};
  // The previous port stays when the VIF comes back to it.
  if (prior.port == reply.port_id) return taken;
  if (const Outcome deleted = context.ports.changes().DeletePort(prior.dvs, prior.port, false); !deleted) {
    ZLOG_WARN("The prior port [%s] of VIF [%s] stays: %s", prior.port.c_str(), request.vif_id.c_str(),
              deleted.error().c_str());
  }
  return taken;
}

void SendPriorPendingConf(VifContext& context, const VifRequest& request, PriorSiteConfig prior) {
  const Outcome sent = context.manager.MP_UpdateVnicAttachment(request.op_id, request.vif_id, request.ls_id,
                                                               prior.new_port, std::move(prior.values));
  if (!sent) {
    ZLOG_ERROR("42075", "MP_UpdateVnicAttachment() call failed: %s\n", sent.error().c_str());
  }
}

}  // namespace zem::zema
