#include "app/zema/app/refused_request.h"

#include "app/zema/hostconfig/host_profile_task.h"
#include "app/zema/proxy/error_sink.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr uint32_t kAnswersFullSync = 2;
constexpr uint32_t kFullSyncFailed = 1;
constexpr int32_t kNotAttempted = -1;

// A request that does not parse is answered without its ids.
template <class Request>
Request Read(const std::string& payload) {
  Request request;
  if (!request.ParseFromString(payload)) request.Clear();
  return request;
}

bool HostConfig(const RefusedRequest& refused) {
  auto reply = Read<switching::HostConfigMsg>(refused.payload);
  reply.set_error_code(ErrorSink::kGeneral);
  reply.set_error_text(refused.reason);
  return refused.origin.sender->HostConfigReply(refused.origin.correlation_id, refused.origin.reply_to,
                                                reply);
}

bool MaintenanceMode(const RefusedRequest& refused) {
  const auto request = Read<switching::MaintenanceModeConfigMsg>(refused.payload);
  switching::MaintenanceModeConfigResultMsg reply;
  if (request.has_transport_node_id()) reply.set_transport_node_id(request.transport_node_id());
  if (request.has_id()) reply.set_id(request.id());
  if (request.has_revision()) reply.set_revision(request.revision());
  reply.set_state(refused.mmode_state);
  reply.set_error_code(ErrorSink::kGeneral);
  reply.set_error_text(refused.reason);
  return refused.origin.sender->TnMmodeConfigReply(refused.origin.correlation_id, refused.origin.reply_to,
                                                   reply);
}

bool FullSync(const RefusedRequest& refused) {
  switching::LogicalSwitchBulkMsg reply;
  reply.set_continuation_flag(kAnswersFullSync);
  reply.set_status(kFullSyncFailed);
  reply.set_error_text(refused.reason);
  return refused.origin.sender->LogicalSwitchFullSyncReply(refused.origin.correlation_id,
                                                           refused.origin.reply_to, reply);
}

bool HostProfile(const RefusedRequest& refused) {
  return refused.origin.sender->HostProfileReply(refused.origin.correlation_id, refused.origin.reply_to,
                                                 RefusedHostProfile(refused.reason));
}

template <class Result, class Request>
Result RefusedVtep(const std::string& payload, const std::string& reason) {
  Result reply;
  reply.set_request_id(Read<Request>(payload).request_id());
  reply.set_result(kNotAttempted);
  reply.set_result_text(reason);
  return reply;
}

bool VtepRecovery(const RefusedRequest& refused) {
  return refused.origin.sender->VtepRecoveryReply(
      refused.origin.correlation_id, refused.origin.reply_to,
      RefusedVtep<switching::VTEPRecoveryResultMsg, switching::VTEPRecoveryRequestMsg>(refused.payload,
                                                                                       refused.reason));
}

bool VtepAdminState(const RefusedRequest& refused) {
  return refused.origin.sender->VtepAdminStateReply(
      refused.origin.correlation_id, refused.origin.reply_to,
      RefusedVtep<switching::VTEPAdminStateMgmtResultMsg, switching::VTEPAdminStateMgmtRequestMsg>(
          refused.payload, refused.reason));
}

struct Row {
  std::string_view type;
  bool (*answer)(const RefusedRequest& refused);
};
constexpr Row kRows[] = {
    {"HostConfigMsg", &HostConfig},
    {"MaintenanceModeConfigMsg", &MaintenanceMode},
    {"LogicalSwitchBulkMsg", &FullSync},
    {"HostProfileMsg", &HostProfile},
    {"VTEPRecoveryRequestMsg", &VtepRecovery},
    {"VTEPAdminStateMgmtRequestMsg", &VtepAdminState},
};

}  // namespace

void AnswerRefused(const RefusedRequest& refused) {
  for (const Row& row : kRows) {
    if (row.type != refused.type) continue;
    if (!row.answer(refused)) {
      ZLOG_WARN("[%s] the answer to a refused %s was not sent", __func__, refused.type.c_str());
    }
    return;
  }
}

}  // namespace zem::zema
