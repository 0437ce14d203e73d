#include "app/zema/vif/port_rpc_op.h"

#include "app/zema/hostlib/port_props.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/vif/security_port.h"
#include "app/zema/vif/vif_context.h"
#include "framework/log/log.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

Outcome Locate(VifContext& context, const VifRequest& request, const PortRpcOp& op, PortLocation* at) {
  if (IsSecurityOnly(request.ls_id)) {
    auto port = FindSecurityPort(context, request);
    if (!port) return Outcome::Failed("Unable to find dvs and port ids for security");
    *at = *std::move(port);
    return Outcome::Done();
  }
  if (!op.zone.empty() && !op.port.empty()) {
    *at = {context.ports.zones().GetDvsIdForTz(op.zone), op.port};
    if (!at->dvs.empty()) return Outcome::Done();
    *at = {};
  }
  std::string path = op.gcf_path;
  Outcome found = context.ports.search().FindPortByVifUuid(request.vif_id, request.ls_id, &path, at);
  if (found) return found;
  return Outcome::Failed("Failed to find port with vif [" + request.vif_id + "] gcfPath [" +
                         request.gcf_path + "]");
}

}  // namespace

Outcome UpdateDvPortRpcOp(VifContext& context, const VifRequest& request, const PortRpcOp& op,
                          PortLocation* at) {
  const auto span = wft::WorkflowUtil::StartChildSpan("HandlerThread.UpdateDvPortRpcOp", wft::kTraceInfo);
  wft::WorkflowUtil::SetCurSpanTag("rpcOp", op.operation);
  wft::WorkflowUtil::SetCurSpanTag("gcfPath", request.gcf_path);
  if (Outcome located = Locate(context, request, op, at); !located) return located;
  const char* const done = op.done ? port_props::kTrue : port_props::kFalse;
  Outcome noted = context.ports.changes().UpdateDvportRpcOp(at->dvs, at->port, op.operation, done);
  if (!noted) {
    return Outcome::Failed(std::string("Failed to set Port Pending ") + op.operation + "=" + done +
                           " for vif [" + request.vif_id + "] port-key [" + at->port + "]");
  }
  ZLOG_INFO("[%s] Successfully set Port Pending %s=%s for vif [%s] port-key [%s]", __func__, op.operation,
            done, request.vif_id.c_str(), at->port.c_str());
  return noted;
}

}  // namespace zem::zema
