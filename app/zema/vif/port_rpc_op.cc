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

bool Locate(VifContext& context, const VifRequest& request, const PortRpcOp& op, PortLocation* at,
            std::string* error) {
  if (IsSecurityOnly(request.ls_id)) {
    if (auto port = FindSecurityPort(context, request)) {
      *at = *std::move(port);
      return true;
    }
    *error = "Unable to find dvs and port ids for security";
    return false;
  }
  if (!op.zone.empty() && !op.port.empty()) {
    *at = {context.ports.zones().GetDvsIdForTz(op.zone), op.port};
    if (!at->dvs.empty()) return true;
    *at = {};
  }
  std::string path = op.gcf_path;
  std::string reason;
  if (context.ports.search().FindPortByVifUuid(request.vif_id, request.ls_id, &path, at, &reason) == 0)
    return true;
  *error = "Failed to find port with vif [" + request.vif_id + "] gcfPath [" + request.gcf_path + "]";
  return false;
}

}  // namespace

bool UpdateDvPortRpcOp(VifContext& context, const VifRequest& request, const PortRpcOp& op, PortLocation* at,
                       std::string* error) {
  const auto span = wft::WorkflowUtil::StartChildSpan("HandlerThread.UpdateDvPortRpcOp", wft::kTraceInfo);
  wft::WorkflowUtil::SetCurSpanTag("rpcOp", op.operation);
  wft::WorkflowUtil::SetCurSpanTag("gcfPath", request.gcf_path);
  if (!Locate(context, request, op, at, error)) return false;
  const char* const done = op.done ? port_props::kTrue : port_props::kFalse;
  std::string reason;
  if (context.ports.changes().UpdateDvportRpcOp(at->dvs, at->port, op.operation, done, &reason) != 0) {
    *error = std::string("Failed to set Port Pending ") + op.operation + "=" + done + " for vif [" +
             request.vif_id + "] port-key [" + at->port + "]";
    return false;
  }
  ZLOG_INFO("[%s] Successfully set Port Pending %s=%s for vif [%s] port-key [%s]", __func__, op.operation,
            done, request.vif_id.c_str(), at->port.c_str());
  return true;
}

}  // namespace zem::zema
