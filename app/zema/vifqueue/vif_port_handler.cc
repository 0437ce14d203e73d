#include "app/zema/vifqueue/vif_port_handler.h"

#include "app/zema/migration/migration_record.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/state/health_record.h"
#include "app/zema/state/realization_options.h"
#include "app/zema/vif/attach_operation.h"
#include "app/zema/vif/detach_operation.h"
#include "app/zema/vif/restore_operation.h"
#include "app/zema/vif/security_port.h"
#include "app/zema/vif/site_config.h"
#include "app/zema/vifqueue/resync_state.h"
#include "framework/log/log.h"
#include "platform/timeline/step.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "DoVifPortOperation";

// The vNIC is gone, so its port is untied even when the detach fails.
bool UntiesPort(const VifRequest& request) {
  return request.op_code == VifRequest::kDetach && !request.security_switch_id.empty();
}

wft::Span SpanOf(const VifRequest& request) {
  constexpr const char* kName = "HandlerThread.DoVifPortOperation";
  return request.trace.valid() ? wft::WorkflowUtil::StartChildSpan(kName, wft::kTraceInfo, request.trace)
                               : wft::WorkflowUtil::StartRootSpan(kName, wft::kTraceInfo);
}

bool IsResync(const VifRequest& request) {
  return request.op_code == VifRequest::kSyncAttach || request.op_code == VifRequest::kSyncDetach;
}

class TurnEnd {
 public:
  explicit TurnEnd(VifRequest& request) : request_(request) {}
  ~TurnEnd() {
    if (request_.turn) request_.turn->Leave();
    // A copy of the request, or a second try, takes a new place.
    request_.turn.reset();
  }
  TurnEnd(const TurnEnd&) = delete;
  TurnEnd& operator=(const TurnEnd&) = delete;

 private:
  VifRequest& request_;
};

}  // namespace

VifPortHandler::VifPortHandler(std::shared_ptr<VifContext> context, Surroundings around)
    : context_(std::move(context)), around_(around) {}
VifPortHandler::~VifPortHandler() = default;

void VifPortHandler::DoVifPortOperation(VifRequest& request, Thread& waiter) {
  ZLOG_INFO("[%s] request=[%s]\n", kTag, request.ToString().c_str());
  const auto span = SpanOf(request);
  RestoreAnswer answer;
  Operate(request, waiter, &answer);
  // Sending may take more than a minute; other operations on the VIF can run meanwhile.
  if (answer) around_.sender.SendVIFRestoreResponse(*answer);
}

void VifPortHandler::Operate(VifRequest& request, Thread& waiter, RestoreAnswer* answer) {
  // Lets the next operation on the VIF run, however this one ends.
  const TurnEnd end(request);
  if (Defer(request)) return;
  const bool healthy = CheckHealth(request);
  // A detach that unties a security-only port does so even when the host is not healthy, in its turn.
  if (!healthy && !UntiesPort(request)) return;
  const bool in_turn = AwaitTurn(request);
  if (healthy && !in_turn) request.error_text = "Concurrent operation on vif, cannot proceed";
  if (!healthy || !in_turn) {
    if (UntiesPort(request)) {
      const Synchronizer lock(context_->port_lock, __FILE__, __LINE__);
      UntieSecurityPort(*context_, request);
    }
    return;
  }
  // Recorded again at the end: a round that began meanwhile may have seen the state before the operation.
  NoteForResync(request);
  Dispatch(request, waiter, answer);
  NoteForResync(request);
}

void VifPortHandler::Arrived(VifRequest& request) { request.turn = in_process_->TakeTurn(request.vif_id); }

// An operation of the resync gives way at once when the VIF is busy.
bool VifPortHandler::AwaitTurn(VifRequest& request) {
  if (request.vif_id.empty()) return true;
  if (!request.turn) {
    request.turn =
        IsResync(request) ? in_process_->TakeOnlyTurn(request.vif_id) : in_process_->TakeTurn(request.vif_id);
  }
  timeline::Step wait("waits for earlier operations on the VIF");
  const bool came = request.turn && request.turn->Await();
  if (!came) wait.Result("not its turn", true);
  return came;
}

// During a migration of interfaces the host sends requests under the migration's id.  They are deferred,
// because the migration itself creates the port, and clears the VIF from it.
bool VifPortHandler::Defer(VifRequest& request) {
  if (!request.request) return false;
  if (request.op_code != VifRequest::kAttach && request.op_code != VifRequest::kDetach &&
      request.op_code != VifRequest::kAttachToVifUuid) {
    return false;
  }
  if (!around_.migration.IsMigrating(request.op_id)) return false;
  ZLOG_INFO("[%s] Defer Vif operation OpaqueNetwork=[%s] vif=[%s] gcf=[%s] opId=[%s]\n", kTag,
            request.ls_id.c_str(), request.vif_id.c_str(), request.gcf_path.c_str(), request.op_id.c_str());
  if (request.op_code == VifRequest::kDetach) around_.migration.NoteLeft(request.op_id, request.vif_id);
  if (request.op_code == VifRequest::kAttachToVifUuid) {
    ZLOG_INFO("[%s] Defer Vif operation, sending back vif[%s] as result", kTag, request.vif_id.c_str());
    request.result_text = request.vif_id;
  }
  return true;
}

bool VifPortHandler::CheckHealth(VifRequest& request) {
  if (!around_.options.Snapshot().pre_check_health) return true;
  ZLOG_INFO("[%s] Running health pre-checks.", kTag);
  if (around_.health.lum_ready()) return true;
  ZLOG_ERROR("42019", "[%s] ZEMA Lum not ready", kTag);
  request.error_text =
      "ZEMA Lum not ready. Please restart zem-tarvik by invoking /etc/init.d/zem-tarvik restart on this host "
      "before performing any further operations.";
  return false;
}

void VifPortHandler::NoteForResync(const VifRequest& request) {
  if (request.host_op_code == VifRequest::kUnsupported || request.vif_id.empty()) return;
  const bool detach = request.host_op_code == VifRequest::kDetach;
  around_.resync.Note(request.ls_id, request.vif_id, detach ? ResyncState::kDetach : ResyncState::kAttach);
}

void VifPortHandler::Dispatch(VifRequest& request, Thread& waiter, RestoreAnswer* answer) {
  switch (request.op_code) {
    case VifRequest::kAttach:
    case VifRequest::kSyncAttach:
      return Attach(request, waiter);
    case VifRequest::kAttachToVifUuid:
      return AttachOperation(*context_, prior_, request, waiter).DoMpVifAttachRpc(true);
    case VifRequest::kDetach:
    case VifRequest::kSyncDetach:
      return DetachOperation(*context_, prior_, request, waiter).Run();
    case VifRequest::kManagerDetach:
      return ManagerDetach(request);
    case VifRequest::kFetchSiteConfig:
      return UpdateSiteConfigurationOnPort(*context_, request);
    case VifRequest::kRestore:
      *answer = RestoreVif(*context_, request);
      return;
    case VifRequest::kAttachLiveMove:
      // The host brings the VM and possibly its ports, so the index may be out of date for this VIF.
      context_->ports.holders().DoubtVif(request.vif_id);
      [[fallthrough]];
    default:
      ZLOG_INFO("[%s] ignore opCode: [%s:%d]\n", kTag, request.KindText().c_str(), request.op_code);
  }
}

void VifPortHandler::Attach(VifRequest& request, Thread& waiter) {
  if (request.vif_id.empty()) {
    ZLOG_ERROR("41543", "[%s] required vif uuid is not set\n", kTag);
    request.error_text = "required vif uuid is not set";
    return;
  }
  AttachOperation(*context_, prior_, request, waiter).DoMpVifAttachRpc(false);
}

void VifPortHandler::ManagerDetach(VifRequest& request) {
  ZLOG_INFO("[PortOp] Inside MP_DETACH_PORT, about to clear vif");
  const Synchronizer lock(context_->port_lock, __FILE__, __LINE__);
  const Outcome cleared = context_->ports.changes().ClearVifFromPort(request.zone_id, request.port_id,
                                                                     request.ls_id, request.vif_id, false);
  if (!cleared) request.error_text = cleared.error();
}

// While the agent was not connected, the host attached its VMs to the ports that it found.
void VifPortHandler::HostCame() { context_->ports.holders().ForgetVifIndex(); }

void VifPortHandler::EndWaits() {
  context_->ending.Stop();
  in_process_->EndWaits();
  context_->manager.EndWaits();
}

}  // namespace zem::zema
