#include "app/zema/vif/attach_operation.h"

#include "app/zema/manager/zem_manager.h"
#include "app/zema/ports/port_description.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/vif/local_port.h"
#include "app/zema/vif/port_rpc_op.h"
#include "app/zema/vif/prior_attachments.h"
#include "app/zema/vif/security_port.h"
#include "app/zema/vif/vif_context.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "DoMpVifAttachRpc";

// The manager could not be reached; any other error text is a refusal by the manager.
bool IsTransportFailure(const std::string& error) {
  return error == ZemManager::kTimedOut || error == ZemManager::kSendFailed;
}

}  // namespace

AttachOperation::AttachOperation(VifContext& context, PriorAttachments& prior, VifRequest& request,
                                 Thread& waiter)
    : context_(context), prior_(prior), request_(request), waiter_(waiter), begun_(Clock::Process().Now()) {}

void AttachOperation::DoMpVifAttachRpc(bool return_vif) {
  const auto span = wft::WorkflowUtil::StartChildSpan("HandlerThread.DoMpVifAttachRpc", wft::kTraceInfo);
  if (context_.manager.InMaintenanceMode()) {
    ZLOG_ERROR("41544", "[%s] Cannot operate in maintenance mode\n", kTag);
    request_.error_text = "Cannot operate in maintenance mode";
    return;
  }
  if (request_.spec) reply_ = PortAttachedOf(*request_.spec);
  TellManager();
  Attach(return_vif);
  if (prior_config_) SendPriorPendingConf(context_, request_, *std::move(prior_config_));
}

void AttachOperation::Attach(bool return_vif) {
  if (request_.precreated) {
    if (!reply_.error.empty()) {
      ZLOG_ERROR("42003", "[%s] MP_AddVnicAttachment() failed: %s\n", kTag, reply_.error.c_str());
      request_.error_text = reply_.error;
      return;
    }
    ZLOG_INFO("[%s] Skip dvport creation because port [%s] has already been created\n", kTag,
              reply_.port_id.c_str());
    if (return_vif) request_.result_text = reply_.port_id;
    return;
  }
  {
    const Synchronizer lock(context_.port_lock, __FILE__, __LINE__);
    ZLOG_INFO(
        "[%s] Port created on mp for ATTACH request: opId [%s], vifUuid [%s],           lpUuid [%s], lsUuid "
        "[%s], tzUuid [%s], oldLpUuid [%s], oldLsUuid [%s], oldTzUuid [%s], gcfPath [%s], initState [%s]",
        kTag, reply_.op_id.c_str(), reply_.vif_id.c_str(), reply_.port_id.c_str(), reply_.switch_id.c_str(),
        reply_.zone_id.c_str(), reply_.old_port_id.c_str(), reply_.old_switch_id.c_str(),
        reply_.old_zone_id.c_str(), reply_.gcf_path.c_str(), reply_.init_state.c_str());
    if (!reply_.error.empty()) return AfterManagerError(return_vif);
    const bool security = IsSecurityOnly(request_.ls_id);
    // The search must precede the clearing of ports, because it may find the port by its VIF.
    if (security) security_port_ = FindSecurityPort(context_, request_);
    if (LeavePriorPort() && !security) {
      ForgetPendingOperation();
      return MakePort(return_vif);
    }
  }
  if (!request_.error_text.empty()) return RollBack();
  if (!TieSecurity()) return;
  const Synchronizer lock(context_.port_lock, __FILE__, __LINE__);
  ForgetPendingOperation();
}

void AttachOperation::TellManager() {
  context_.manager.MP_AddVnicAttachment(request_.op_id, request_.vif_id, request_.ls_id, PortHint(),
                                        request_.gcf_path, &waiter_, request_.spec == nullptr, &reply_);
}

std::string AttachOperation::PortHint() {
  if (request_.vif_id.empty()) return request_.port_id;
  std::string port =
      prior_.PortToReturnTo(request_.vif_id, request_.ls_id, request_.gcf_path, OpIdStem(request_.op_id));
  return port.empty() ? request_.port_id : port;
}

// False with the reason in the request.
bool AttachOperation::LeavePriorPort() {
  if (!reply_.old_port_id.empty()) {
    if (!HandlePriorAttachedPort()) return false;
    prior_config_ = TakePriorPendingConf(context_, request_, reply_);
    return true;
  }
  ZLOG_INFO("[%s] Prior logical port uuid is not returned from MP for port [%s], attempting to clear vif",
            kTag, reply_.port_id.c_str());
  if (request_.vif_id.empty()) return true;
  ZLOG_INFO("[PortOp] HandlerThread::DoMpVifAttachRpc about to clear vif [%s] from prior attached port",
            request_.vif_id.c_str());
  const std::string& kept = security_port_ ? security_port_->port : reply_.port_id;
  const Outcome cleared = context_.ports.changes().ClearVifFromPortOtherThan(kept, request_.vif_id);
  if (cleared) return true;
  ZLOG_ERROR("42003", "[%s] VIF [%s] stays on a port that it had: %s", kTag, request_.vif_id.c_str(),
             cleared.error().c_str());
  request_.error_text = cleared.error();
  return false;
}

bool AttachOperation::HandlePriorAttachedPort() {
  const auto span =
      wft::WorkflowUtil::StartChildSpan("HandlerThread.HandlePriorAttachedPort", wft::kTraceInfo);
  wft::WorkflowUtil::SetCurSpanTag("opId", request_.op_id);
  wft::WorkflowUtil::SetCurSpanTag("gcfPath", request_.gcf_path);
  const char* const ls = reply_.old_switch_id.c_str();
  const char* const port = reply_.old_port_id.c_str();
  const char* const zone = reply_.old_zone_id.c_str();
  ZLOG_INFO("[%s] handling prior attachment for vif: ls:[%s] lp:[%s] tz:[%s]\n", __func__, ls, port, zone);
  // A port on another host cannot be given back here.
  const auto own = context_.host.id();
  if (reply_.host_id.empty() || !own || reply_.host_id == *own) {
    prior_.Note(request_.vif_id, request_.gcf_path,
                {reply_.old_switch_id, request_.ls_id, reply_.old_zone_id, reply_.old_port_id,
                 OpIdStem(request_.op_id)});
  }
  const Outcome cleared = context_.ports.changes().ClearVifFromPort(
      reply_.old_zone_id, reply_.old_port_id, reply_.old_switch_id, request_.vif_id, true);
  if (!cleared) {
    ZLOG_ERROR("42068", "[%s] clearVif(lpid=%s, lsid=%s, zoneUuid= %s, vifUuid=%s, gcfPath=%s) failed: %s\n",
               __func__, port, ls, zone, request_.vif_id.c_str(), request_.gcf_path.c_str(),
               cleared.error().c_str());
    request_.error_text = cleared.error();
    return false;
  }
  ZLOG_INFO("[%s] cleared vif [%s] on prior attached dvport [%s] on ls [%s] in zone [%s]\n", __func__,
            request_.vif_id.c_str(), port, ls, zone);
  return true;
}

// The VIF is still on its previous port.  That is reported to the manager, if the manager has ever known the
// VIF there.
void AttachOperation::RollBack() {
  if (reply_.old_port_id.empty()) return;
  ZLOG_INFO("[%s] rollback vif [%s] to prior attached dvport [%s]\n", "HandlePriorAttachedPort",
            request_.vif_id.c_str(), reply_.old_port_id.c_str());
  PortAttached back;
  context_.manager.MP_AddVnicAttachment(request_.op_id, request_.vif_id, reply_.old_switch_id,
                                        reply_.old_port_id, request_.gcf_path, &waiter_, true, &back);
  if (!back.error.empty()) {
    ZLOG_ERROR("42068", "[%s] the rollback of vif [%s] failed: %s", "HandlePriorAttachedPort",
               request_.vif_id.c_str(), back.error.c_str());
  }
}

// False with the reason in the request.
bool AttachOperation::TieSecurity() {
  const std::string origin = SecurityOriginOf(request_);
  ZLOG_INFO("[%s] Setting extra-configs of logical-port %s to enable security on dvport %s", kTag,
            reply_.port_id.c_str(), origin.c_str());
  if (!security_port_) {
    request_.error_text = "Unable to find dvs and port ids for security from logical switch origin ID [" +
                          origin + "]. Cannot set port opaque data";
    ZLOG_ERROR("44423", "[%s] %s", kTag, request_.error_text.c_str());
    return false;
  }
  const Outcome tied =
      TieSecurityPort(context_, *security_port_, {request_.vif_id, request_.ls_id, reply_.port_id});
  request_.error_text = tied.error();
  return tied.done();
}

// The manager knows of the attach now, so the record of a pending one is removed.
void AttachOperation::ForgetPendingOperation() {
  if (!IsSecurityOnly(request_.ls_id) && (reply_.port_id.empty() || reply_.zone_id.empty())) return;
  PortLocation at;
  const Outcome forgotten = UpdateDvPortRpcOp(
      context_, request_, {PortRpcOp::kAttach, true, reply_.zone_id, reply_.port_id, ""}, &at);
  if (!forgotten) ZLOG_ERROR("42003", "[%s] %s", kTag, forgotten.error().c_str());
}

void AttachOperation::MakePort(bool return_vif) {
  if (reply_.port_id.empty() || reply_.zone_id.empty()) {
    ZLOG_INFO("[%s] empty portUuid [%s] or tzUuid [%s], skip dvport creation\n", kTag, reply_.port_id.c_str(),
              reply_.zone_id.c_str());
    return;
  }
  if (const Outcome created = CreateLocalDvPort(context_, request_, begun_, reply_); !created) {
    request_.error_text = created.error();
    return;
  }
  ProcessLogicalPortInitState(context_, request_, reply_);
  if (return_vif) request_.result_text = reply_.port_id;
}

// When only the manager is unreachable, the VM keeps or gets back its previous port.
void AttachOperation::AfterManagerError(bool return_vif) {
  request_.error_text = reply_.error;
  const bool away = IsTransportFailure(reply_.error);
  PortLocation at;
  // After a refusal the port is not brought back from its file just to be marked.
  const Outcome noted = UpdateDvPortRpcOp(
      context_, request_,
      {PortRpcOp::kAttach, false, reply_.zone_id, reply_.port_id, away ? request_.gcf_path : ""}, &at);
  if (!noted) ZLOG_ERROR("42003", "[%s] %s", kTag, noted.error().c_str());
  if (!away) {
    ZLOG_ERROR("42003", "[%s] Not RPC Send error. Returning", kTag);
    return;
  }
  if (request_.vif_id.empty()) {
    ZLOG_INFO("[%s] VIF not provided. Returning error\n", kTag);
    return;
  }
  std::string path = request_.gcf_path;
  if (!context_.ports.search().FindPortByVifUuid(request_.vif_id, request_.ls_id, &path, &at)) return;
  context_.ports.files().TakeFile(at);
  request_.error_text.clear();
  if (return_vif) request_.result_text = request_.vif_id;
  ZLOG_INFO("Suceeded in restoring dvport [%s] for VIF [%s] and returning success with %s VIF in the result",
            at.port.c_str(), request_.vif_id.c_str(), return_vif ? "" : "NO");
}

}  // namespace zem::zema
