#include "app/zema/vif/detach_operation.h"

#include "app/zema/hostlib/port_props.h"
#include "app/zema/manager/zem_manager.h"
#include "app/zema/ports/port_description.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/vif/local_port.h"
#include "app/zema/vif/port_rpc_op.h"
#include "app/zema/vif/prior_attachments.h"
#include "app/zema/vif/security_port.h"
#include "app/zema/vif/vif_context.h"
#include "framework/log/log.h"
#include "platform/core/clock.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "DoVifPortOperation";

}  // namespace

DetachOperation::DetachOperation(VifContext& context, PriorAttachments& prior, VifRequest& request,
                                 Thread& waiter)
    : context_(context), prior_(prior), request_(request), waiter_(waiter) {}

void DetachOperation::Run() {
  if (request_.spec) {
    reply_ = PortAttachedOf(*request_.spec);
    reply_.port_id.clear();
    reply_.switch_id.clear();
  }
  context_.manager.MP_RemoveVnicAttachment(request_.op_id, request_.vif_id, request_.ls_id, request_.port_id,
                                           request_.gcf_path, &waiter_, request_.spec == nullptr, &reply_);
  {
    const Synchronizer lock(context_.port_lock, __FILE__, __LINE__);
    if (!request_.vif_id.empty()) NoteOperation();
    UntieSecurityPort(context_, request_);
    if (reply_.error.empty()) {
      ClearPort();
    } else {
      request_.error_text = reply_.error;
      ZLOG_ERROR("42004", "[%s] MP_RemoveVnicAttachment() failed: %s\n", kTag, reply_.error.c_str());
    }
  }
  CleanUpPriorAttachedPort();
}

void DetachOperation::NoteOperation() {
  // The port is searched only on the switches: the files of a VM that has moved away belong to another host.
  const Outcome noted =
      UpdateDvPortRpcOp(context_, request_,
                        {PortRpcOp::kDetach, reply_.error.empty(), reply_.zone_id, reply_.port_id, ""}, &at_);
  if (noted) {
    ZLOG_INFO("[%s] Successfully retrieved portId:[%s], dvsUuid:[%s] for vif:[%s], LS:[%s]", kTag,
              at_.port.c_str(), at_.dvs.c_str(), request_.vif_id.c_str(), request_.ls_id.c_str());
  } else {
    ZLOG_ERROR("42004", "[%s] %s", kTag, noted.error().c_str());
  }
  if (!at_.dvs.empty() && !at_.port.empty()) {
    // A failure is logged there and does not keep the VIF on the port.
    static_cast<void>(context_.ports.properties().ClearPortExtraConfig(at_.dvs, at_.port, port_props::kCrx));
  }
}

void DetachOperation::ClearPort() {
  if (reply_.port_id.empty()) reply_.port_id = at_.port;
  if (IsSecurityOnly(request_.ls_id)) {
    ZLOG_INFO("[%s] Skipping further processing for security vif detach for port: [%s]", kTag,
              reply_.port_id.c_str());
    return;
  }
  reply_.port_id.empty() ? ClearWhereverItIs() : ClearNamedPort();
}

void DetachOperation::ClearNamedPort() {
  if (!reply_.vif_id.empty()) {
    ZLOG_INFO(
        "[PortOp] Inside CORVD_DETACH_PORT, port vif uuid not empty returned from MP, about to clear vif");
    Clear(reply_.zone_id, reply_.port_id, true);
    if (request_.error_text.empty()) {
      ZLOG_INFO("[%s] Successfully cleared external id from the port [%s]", kTag, reply_.port_id.c_str());
    }
    return;
  }
  if (reply_.gcf_path.empty()) {
    ZLOG_INFO("[%s] Clearing VIF [%s] from port [%s] even though MP did not return VIF", kTag,
              request_.vif_id.c_str(), reply_.port_id.c_str());
    Clear(reply_.zone_id, reply_.port_id, true);
    return;
  }
  ZLOG_INFO("[%s] MP returned gcfPath [%s], request gcfPath [%s]", kTag, reply_.gcf_path.c_str(),
            request_.gcf_path.c_str());
  if (reply_.gcf_path == request_.gcf_path) return;
  const Outcome updated =
      context_.ports.changes().UpdateGcfPath(reply_.zone_id, reply_.port_id, reply_.gcf_path);
  if (!updated) {
    request_.error_text = updated.error();
    return;
  }
  ZLOG_INFO("[%s] Successfully updated port [%s] gcfPath to [%s]", kTag, reply_.port_id.c_str(),
            reply_.gcf_path.c_str());
}

void DetachOperation::ClearWhereverItIs() {
  ZLOG_INFO(
      "[%s] MP detach-port reply doesn't specify a port uuid, trying to remove externalId if dvPort found\n",
      kTag);
  const auto prior = prior_.Find(request_.vif_id, request_.gcf_path);
  if (prior) {
    ZLOG_INFO("[PortOp] Inside CORVD_DETACH_PORT, found prior port, about to clear vif");
  } else {
    ZLOG_INFO("[PortOp] Inside CORVD_DETACH_PORT, DID NOT  found prior port, about to clear vif");
  }
  Clear(prior ? prior->old_zone : std::string(), "", true);
}

void DetachOperation::Clear(const std::string& zone, const std::string& port, bool force) {
  const Outcome cleared =
      context_.ports.changes().ClearVifFromPort(zone, port, request_.ls_id, request_.vif_id, force);
  if (!cleared) request_.error_text = cleared.error();
}

// Takes the VIF off the port on which the manager knew it, and off every other port but the previous one.
// Returns false with the reason in the request.
bool DetachOperation::ClearForUndo(const PortAttached& back) {
  ZLOG_INFO("[PortOp] Inside cleanup prior port, about to clear vif");
  auto& changes = context_.ports.changes();
  Outcome cleared = changes.ClearVifFromPort(back.old_zone_id, back.old_port_id, back.old_switch_id,
                                             request_.vif_id, false);
  if (cleared) cleared = changes.ClearVifFromPortOtherThan(back.port_id, request_.vif_id);
  if (cleared) return true;
  ZLOG_ERROR("42004", "[%s] %s", "CleanUpPriorAttachedPort", cleared.error().c_str());
  request_.error_text = cleared.error();
  return false;
}

// When half of a VM's reconfiguration failed and the host undoes the other half, the VIF belongs to its
// previous port again.
void DetachOperation::CleanUpPriorAttachedPort() {
  const auto span =
      wft::WorkflowUtil::StartChildSpan("HandlerThread.CleanUpPriorAttachedPort", wft::kTraceInfo);
  const auto prior = prior_.Take(request_.vif_id, request_.gcf_path);
  if (!prior || prior->new_ls != request_.ls_id) return;
  // A later operation on the VM, such as its power-off, undoes nothing.
  if (prior->op_id_stem != OpIdStem(request_.op_id)) return;
  // The VIF came from another host and was never on another switch.
  if (prior->old_ls == request_.ls_id) return;
  ZLOG_INFO("[%s] prior vm operation rollack, reset attach the prior port to the vnic...\n", __func__);
  PortAttached back;
  const TimePoint begun = Clock::Process().Now();
  context_.manager.MP_AddVnicAttachment(request_.op_id, request_.vif_id, prior->old_ls, prior->old_port,
                                        request_.gcf_path, &waiter_, true, &back);
  if (!back.error.empty()) {
    ZLOG_ERROR("42004", "[%s] MP_AddVnicAttachment() failed: %s\n", __func__, back.error.c_str());
    return;
  }
  const Synchronizer lock(context_.port_lock, __FILE__, __LINE__);
  if (!ClearForUndo(back) || back.port_id.empty() || back.zone_id.empty() || IsSecurityOnly(prior->old_ls)) {
    return;
  }
  // For the host the vNIC never left this port, so the host sends no new attach.
  VifRequest again = request_;
  again.ls_id = prior->old_ls;
  if (const Outcome created = CreateLocalDvPort(context_, again, begun, back); !created) {
    request_.error_text = created.error();
  }
}

}  // namespace zem::zema
