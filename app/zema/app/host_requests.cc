#include "app/zema/app/host_requests.h"

#include "app/zema/app/io_service.h"
#include "app/zema/app/realization.h"
#include "app/zema/app/refused_request.h"
#include "app/zema/endpoint/vtep_request_tasks.h"
#include "app/zema/hostconfig/host_config_context.h"
#include "app/zema/hostconfig/host_config_task_qub.h"
#include "app/zema/hostconfig/host_profile_task.h"
#include "app/zema/hostconfig/mmode_config_task.h"
#include "app/zema/hostconfig/restore_task.h"
#include "app/zema/lswitch/logical_switch_context.h"
#include "app/zema/lswitch/logical_switch_full_sync_task.h"
#include "app/zema/lswitch/logical_switch_msg_task.h"
#include "app/zema/ports/port_description.h"
#include "app/zema/ports/vif_request.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;

constexpr const char* kSecurityOnly = "SECURITY_ONLY";

std::shared_ptr<VifRequest> RequestOf(const switching::VifAttachmentMsg& vif, int32_t op_code) {
  auto request = std::make_shared<VifRequest>();
  request->op_code = op_code;
  request->op_id = vif.operation_id();
  request->vif_id = vif.vif_id();
  request->ls_id = vif.logical_switch_id();
  request->port_id = vif.logical_port_id();
  request->zone_id = vif.transport_zone_id();
  request->gcf_path = vif.gcf_path();
  request->state_text = vif.state();
  return request;
}

}  // namespace

std::shared_ptr<VifRequest> DetachRequestOf(const switching::VifAttachmentMsg& vif) {
  return RequestOf(vif, VifRequest::kManagerDetach);
}

std::shared_ptr<VifRequest> RestoreRequestOf(const switching::VifAttachmentMsg& vif) {
  auto request = RequestOf(vif, VifRequest::kRestore);
  if (vif.init_port_state().state() == kSecurityOnly) {
    request->security_switch_id = vif.dv_port().switch_id();
    request->spec = std::make_shared<PortConfigSpec>();
    request->spec->port_id = vif.dv_port().port_id();
    request->spec->init_state = kSecurityOnly;
  }
  return request;
}

struct HostRequests::Contexts {
  std::shared_ptr<HostConfigContext> host_config;
  std::shared_ptr<LogicalSwitchContext> logical_switches;
  std::shared_ptr<EndpointContext> endpoints;
  std::shared_ptr<MmodeContext> mmode;
};

HostRequests::HostRequests(const std::shared_ptr<Realization>& realization, MpaMessageSender& sender,
                           ConfigFiles& files, IOService& io)
    : contexts_(std::make_unique<const Contexts>(Contexts{realization->host_config(),
                                                          realization->logical_switches(),
                                                          realization->endpoints(), realization->mmode()})),
      realization_(realization),
      sender_(sender),
      files_(files),
      io_(io) {}

HostRequests::~HostRequests() = default;

std::unique_ptr<Runnable> HostRequests::HostConfig(const RequestOrigin& origin,
                                                   switching::HostConfigMsg message) {
  return std::make_unique<HostConfigTaskQub>(contexts_->host_config, origin.sender, origin.correlation_id,
                                             origin.reply_to, std::move(message),
                                             HostConfigTaskQub::InStore::kYes, origin.header);
}

std::unique_ptr<Runnable> HostRequests::LogicalSwitch(const RequestOrigin& origin,
                                                      const switching::LogicalSwitchMsg& message) {
  return LogicalSwitchMsgTask::CreateTask(*contexts_->logical_switches, message, origin.sender,
                                          origin.reply_to, 0);
}

std::unique_ptr<Runnable> HostRequests::LogicalSwitchFullSync(const RequestOrigin& origin,
                                                              std::string bytes) {
  return std::make_unique<LogicalSwitchFullSyncTask>(
      contexts_->logical_switches, origin.sender, origin.correlation_id, origin.reply_to, std::move(bytes));
}

std::unique_ptr<Runnable> HostRequests::Restore(const RequestOrigin& origin,
                                                const switching::ChecksumMsg& message) {
  return std::make_unique<RestoreTask>(files_, contexts_->host_config->lum, origin.sender,
                                       origin.correlation_id, origin.reply_to, message);
}

std::unique_ptr<Runnable> HostRequests::HostProfile(const RequestOrigin& origin,
                                                    const switching::HostProfileMsg& message) {
  return std::make_unique<HostProfileTask>(contexts_->host_config->lum, origin.sender, origin.correlation_id,
                                           origin.reply_to, message);
}

std::unique_ptr<Runnable> HostRequests::MaintenanceMode(const RequestOrigin& origin,
                                                        const switching::MaintenanceModeConfigMsg& message) {
  return std::make_unique<MmodeConfigTaskQub>(contexts_->mmode, origin.sender, origin.correlation_id,
                                              origin.reply_to, message);
}

std::unique_ptr<Runnable> HostRequests::VtepRecovery(const RequestOrigin& origin,
                                                     const switching::VTEPRecoveryRequestMsg& message) {
  return std::make_unique<VtepRecoveryTask>(contexts_->endpoints, origin.correlation_id, origin.reply_to,
                                            message);
}

std::unique_ptr<Runnable> HostRequests::VtepAdminState(
    const RequestOrigin& origin, const switching::VTEPAdminStateMgmtRequestMsg& message) {
  return std::make_unique<VtepAdminStateTask>(contexts_->endpoints, origin.correlation_id, origin.reply_to,
                                              message);
}

void HostRequests::SyncVtepAddresses(const RequestOrigin& origin, const switching::VtepIPSyncMsg& message) {
  VtepIPSync(contexts_->endpoints, origin.reply_to, message);
}

void HostRequests::DetachVif(const switching::VifAttachmentMsg& vif) {
  if (const auto live = realization_.lock()) live->AddVifRequest(DetachRequestOf(vif));
}

void HostRequests::RestoreVif(const switching::VifAttachmentMsg& vif) {
  if (const auto live = realization_.lock()) live->AddVifRequest(RestoreRequestOf(vif));
}

void HostRequests::VifResult(const std::string& rpc_id, std::unique_ptr<PortAttached> result) {
  if (const auto live = realization_.lock()) live->SetVifResult(rpc_id, std::move(result));
}

// Messages sent from within the receive callback go through the I/O service, because sending may wait for the
// manager.

void HostRequests::AcknowledgeHostConfig(const std::string& reply_to,
                                         const switching::HostConfigAckMsg& ack) {
  io_.Post([&sender = sender_, reply_to, ack] { sender.SendHostConfigAckMsg(reply_to, ack); });
}

void HostRequests::RefuseHostProfile(const RequestOrigin& origin, const std::string& error) {
  io_.Post([origin, reply = RefusedHostProfile(error)] {
    origin.sender->HostProfileReply(origin.correlation_id, origin.reply_to, reply);
  });
}

void HostRequests::Refuse(const RequestOrigin& origin, std::string_view type, std::string payload,
                          const std::string& reason) {
  io_.Post([mmode = contexts_->mmode,
            refused = RefusedRequest{origin, std::string(type), std::move(payload), reason}]() mutable {
    refused.mmode_state = MmodeResultState(*mmode);
    AnswerRefused(refused);
  });
}

}  // namespace zem::zema
