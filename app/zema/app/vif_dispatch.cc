// The manager's messages about VIFs: responses for which calls wait, and the manager's own requests.

#include "app/zema/app/message_dispatch.h"
#include "framework/log/log.h"
#include "platform/wft/workflow_util.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;
using wft::WorkflowUtil;

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "ProcessReceiveMessages";

constexpr const char* kSpan = "ZemaApp.ProcessReceiveMessages";

constexpr uint32_t kRequest = 0;
constexpr uint32_t kDetach = 1;
constexpr uint32_t kRestore = 3;

constexpr const char* kUnblockedVlan = "UNBLOCKED_VLAN";
constexpr const char* kSecurityOnly = "SECURITY_ONLY";

}  // namespace

std::unique_ptr<PortAttached> PortAttachedOf(const switching::VifAttachmentMsg& vif) {
  auto port = std::make_unique<PortAttached>();
  port->op_id = vif.operation_id();
  port->vif_id = vif.vif_id();
  port->switch_id = vif.logical_switch_id();
  port->port_id = vif.logical_port_id();
  port->zone_id = vif.transport_zone_id();
  port->old_switch_id = vif.old_logical_switch_id();
  port->old_port_id = vif.old_logical_port_id();
  port->old_zone_id = vif.old_transport_zone_id();
  port->host_id = vif.old_host_id();
  port->gcf_path = vif.gcf_path();
  port->uplink_teaming = vif.uplink_teaming_name();
  port->text = vif.opaque_data();
  port->org = vif.tenant_context().org();
  port->project = vif.tenant_context().project();
  port->vpc = vif.tenant_context().vpc();
  if (vif.extra_configs_size() > 0) {
    for (const auto& pair : vif.extra_configs()) port->extra_configs[pair.key()] = pair.value();
    ZLOG_INFO("[%s] set logical port extraConfigs.\n", kTag);
  }
  if (vif.has_init_port_state()) {
    const auto& state = vif.init_port_state();
    port->init_state = state.state();
    if (state.has_vlan()) port->vlan = static_cast<int32_t>(state.vlan());
    if (port->init_state == kUnblockedVlan) {
      for (const auto& range : state.vlan_range()) port->vlan_ranges.emplace_back(range.start(), range.end());
    }
    ZLOG_INFO("[%s] set logical port vlan %d, init state[%s].\n", kTag, port->vlan, port->init_state.c_str());
  }
  port->error = vif.error_text();
  return port;
}

void MessageDispatch::TakeVif(const Incoming& message) {
  switching::VifMsg parsed;
  if (!parsed.ParseFromArray(message.payload.data(), static_cast<int>(message.payload.size()))) {
    ZLOG_ERROR("41514", "[%s] Failed to parse vif message\n", kTag);
    return;
  }
  const auto& context = parsed.span_context();
  const wft::TraceContext parent{context.trace_id_low(), context.span_id_low()};
  if (parent.valid()) {
    const auto span = WorkflowUtil::StartChildSpan(kSpan, wft::kTraceInfo, parent);
    TakeParsedVif(parsed);
  } else {
    TakeParsedVif(parsed);
  }
}

void MessageDispatch::TakeParsedVif(const switching::VifMsg& parsed) {
  if (!parsed.has_type()) ZLOG_ERROR("41507", "MP sent a VifMsg with unset type\n");
  if (parsed.has_type() && parsed.type() == kRequest) {
    TakeVifRequest(parsed);
  } else {
    TakeVifResponse(parsed);
  }
}

void MessageDispatch::TakeVifResponse(const switching::VifMsg& message) {
  if (message.vif_attachment_size() == 0 || message.vif_attachment(0).operation_id().empty()) {
    ZLOG_ERROR("41510", "[%s] Error: operation id not found in VIF response\n", kTag);
    return;
  }
  auto port = PortAttachedOf(message.vif_attachment(0));
  if (!port->error.empty()) {
    ZLOG_ERROR("41511", "[%s] VIF response returned operation failure: %s\n", kTag, port->error.c_str());
  }
  const std::string rpc_id = port->op_id;
  requests_->VifResult(rpc_id, std::move(port));
}

void MessageDispatch::TakeVifRequest(const switching::VifMsg& message) {
  const std::string text = message.ShortDebugString();
  ZLOG_INFO("[%s]Received VifMsg [%s]\n", kTag, text.c_str());
  if (!message.has_operation()) {
    ZLOG_ERROR("41508", "Ignored a REQUEST VifMsg from MP that has unset operation.");
    return;
  }
  const bool has_vif = message.vif_attachment_size() > 0;
  if (message.operation() == kDetach) {
    ZLOG_INFO("[%s] Received a detach-port REQUEST VifMsg [%s] from MP...\n", kTag, text.c_str());
    if (has_vif) requests_->DetachVif(message.vif_attachment(0));
    return;
  }
  if (message.operation() == kRestore) {
    if (!has_vif || message.vif_attachment(0).vif_id().empty()) {
      ZLOG_ERROR("41509", "VifUuid not present for Vif Restore operation");
      return;
    }
    const auto& vif = message.vif_attachment(0);
    if (vif.init_port_state().state() == kSecurityOnly &&
        (vif.dv_port().switch_id().empty() || vif.dv_port().port_id().empty())) {
      ZLOG_ERROR("41509", "dvPort info not present for security-only Vif Restore operation");
      return;
    }
    requests_->RestoreVif(vif);
    return;
  }
  ZLOG_ERROR("41509", "[%s] Ignored a REQUEST VifMsg from MP that has unknown operation [%d]", kTag,
             static_cast<int>(message.operation()));
}

}  // namespace zem::zema
