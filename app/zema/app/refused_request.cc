#include "app/zema/app/refused_request.h"

#include "app/zema/lswitch/host_profile_task.h"
#include "app/zema/qub/error_sink.h"
#include "framework/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr uint32_t kAnswersFullSync = 2;
constexpr uint32_t kFullSyncFailed = 1;
constexpr int32_t kNotAttempted = -1;

// What cannot be read is answered without its ids.
template <class Request>
Request Read(const std::string& payload) {
  Request request;
  if (!request.ParseFromString(payload)) request.Clear();
  return request;
}

bool HostConfig(const RequestOrigin& origin, const std::string& payload, const std::string& reason) {
  auto reply = Read<switching::HostConfigMsg>(payload);
  reply.set_error_code(ErrorSink::kGeneral);
  reply.set_error_text(reason);
  return origin.sender->HostConfigReply(origin.correlation_id, origin.reply_to, reply);
}

bool MaintenanceMode(const RequestOrigin& origin, const std::string& payload, const std::string& reason) {
  const auto request = Read<switching::MaintenanceModeConfigMsg>(payload);
  switching::MaintenanceModeConfigResultMsg reply;
  if (request.has_transport_node_id()) reply.set_transport_node_id(request.transport_node_id());
  if (request.has_id()) reply.set_id(request.id());
  if (request.has_revision()) reply.set_revision(request.revision());
  reply.set_error_code(ErrorSink::kGeneral);
  reply.set_error_text(reason);
  return origin.sender->TnMmodeConfigReply(origin.correlation_id, origin.reply_to, reply);
}

bool FullSync(const RequestOrigin& origin, const std::string&, const std::string& reason) {
  switching::LogicalSwitchBulkMsg reply;
  reply.set_continuation_flag(kAnswersFullSync);
  reply.set_status(kFullSyncFailed);
  reply.set_error_text(reason);
  return origin.sender->LogicalSwitchFullSyncReply(origin.correlation_id, origin.reply_to, reply);
}

bool HostProfile(const RequestOrigin& origin, const std::string&, const std::string& reason) {
  return origin.sender->HostProfileReply(origin.correlation_id, origin.reply_to, RefusedHostProfile(reason));
}

template <class Result, class Request>
Result RefusedVtep(const std::string& payload, const std::string& reason) {
  Result reply;
  reply.set_request_id(Read<Request>(payload).request_id());
  reply.set_result(kNotAttempted);
  reply.set_result_text(reason);
  return reply;
}

bool VtepRecovery(const RequestOrigin& origin, const std::string& payload, const std::string& reason) {
  return origin.sender->VtepRecoveryReply(
      origin.correlation_id, origin.reply_to,
      RefusedVtep<switching::VTEPRecoveryResultMsg, switching::VTEPRecoveryRequestMsg>(payload, reason));
}

bool VtepAdminState(const RequestOrigin& origin, const std::string& payload, const std::string& reason) {
  return origin.sender->VtepAdminStateReply(
      origin.correlation_id, origin.reply_to,
      RefusedVtep<switching::VTEPAdminStateMgmtResultMsg, switching::VTEPAdminStateMgmtRequestMsg>(payload,
                                                                                                   reason));
}

struct Row {
  std::string_view type;
  bool (*answer)(const RequestOrigin& origin, const std::string& payload, const std::string& reason);
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

void AnswerRefused(const RequestOrigin& origin, std::string_view type, const std::string& payload,
                   const std::string& reason) {
  for (const Row& row : kRows) {
    if (row.type != type) continue;
    if (!row.answer(origin, payload, reason)) {
      ZLOG_WARN("[%s] the answer to a refused %s was not sent", __func__, std::string(type).c_str());
    }
    return;
  }
}

}  // namespace zem::zema
