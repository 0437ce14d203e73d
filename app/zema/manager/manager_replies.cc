// The replies to the manager; each is sent under the full name of its message.

#include "app/zema/manager/manager_replies.h"

#include "app/zema/manager/manager_sender.h"
#include "framework/log/log.h"
#include "platform/timeline/step.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kLogicalSwitchAck = "LogicalSwitchACK";

constexpr uint32_t kProfileFailed = 2;

std::string TextOr(const std::string& text, const char* code_name, int64_t code) {
  return text.empty() ? code_name + std::string("=") + std::to_string(code) : text;
}

// What an answer tells of a failure; empty when it tells of success.
std::string ErrorIn(const switching::MaintenanceModeConfigResultMsg& reply) {
  return reply.error_code() == 0 ? "" : TextOr(reply.error_text(), "ErrorCode", reply.error_code());
}

std::string ErrorIn(const switching::HostProfileMsg& reply) {
  return reply.status() != kProfileFailed ? "" : TextOr(reply.error_text(), "Status", reply.status());
}

std::string ErrorIn(const switching::LogicalSwitchBulkMsg& reply) {
  return reply.status() == 0 ? "" : TextOr(reply.error_text(), "Status", reply.status());
}

template <class EndpointReply>
std::string ErrorIn(const EndpointReply& reply) {
  return reply.result() == 0 ? "" : TextOr(reply.result_text(), "Result", reply.result());
}

// An answer that tells of a failure ends the operation that it belongs to.
template <class Reply>
void EndIfFailed(const Reply& reply) {
  const timeline::OperationPtr operation = timeline::Current();
  if (!operation || operation->kind() != timeline::Kind::kHostSetting) return;
  if (const std::string error = ErrorIn(reply); !error.empty()) timeline::Finish(operation, error);
}

}  // namespace

bool ManagerReplies::Send(const char* operation, const google::protobuf::MessageLite& message,
                          const std::string& correlation_id, const std::string& reply_to) {
  const std::string type = "com." + message.GetTypeName();
  ZLOG_INFO("[%s] sending %s, correlationId [%s], replyTo [%s]", operation, type.c_str(),
            correlation_id.c_str(), reply_to.c_str());
  std::string message_id;
  timeline::Step step("sends to the manager", type);
  if (!sender_.SendMsg(type, message.SerializeAsString(), correlation_id, reply_to, &message_id)) {
    ZLOG_ERROR("00103", "[%s] %s was not sent", operation, type.c_str());
    step.Result("not sent", true);
    return false;
  }
  ZLOG_INFO("[%s] sent %s, message id [%s]", operation, type.c_str(), message_id.c_str());
  return true;
}

bool ManagerReplies::HostConfigReply(const std::string& correlation_id, const std::string& reply_to,
                                     const switching::HostConfigMsg& reply) {
  return Send(__func__, reply, correlation_id, reply_to);
}

bool ManagerReplies::SendHostConfigAckMsg(const std::string& reply_to,
                                          const switching::HostConfigAckMsg& ack) {
  return Send(__func__, ack, "", reply_to);
}

bool ManagerReplies::TnMmodeConfigReply(const std::string& correlation_id, const std::string& reply_to,
                                        const switching::MaintenanceModeConfigResultMsg& reply) {
  EndIfFailed(reply);
  return Send(__func__, reply, correlation_id, reply_to);
}

bool ManagerReplies::VtepRecoveryReply(const std::string& correlation_id, const std::string& reply_to,
                                       const switching::VTEPRecoveryResultMsg& reply) {
  EndIfFailed(reply);
  return Send(__func__, reply, correlation_id, reply_to);
}

bool ManagerReplies::VtepAdminStateReply(const std::string& correlation_id, const std::string& reply_to,
                                         const switching::VTEPAdminStateMgmtResultMsg& reply) {
  EndIfFailed(reply);
  return Send(__func__, reply, correlation_id, reply_to);
}

bool ManagerReplies::LogicalSwitchReply(const std::string& reply_to,
                                        const switching::LogicalSwitchMsg& reply) {
  return Send(__func__, reply, kLogicalSwitchAck, reply_to);
}

bool ManagerReplies::LogicalSwitchFullSyncReply(const std::string& correlation_id,
                                                const std::string& reply_to,
                                                const switching::LogicalSwitchBulkMsg& reply) {
  EndIfFailed(reply);
  return Send(__func__, reply, correlation_id, reply_to);
}

bool ManagerReplies::SendTransportNodeEventMsg(const std::string& reply_to,
                                               const switching::TransportNodeEventMsg& event) {
  return Send(__func__, event, "", reply_to);
}

bool ManagerReplies::SendRestoreReplyMsg(const std::string& reply_to,
                                         const switching::ChecksumMsg& checksum) {
  return Send(__func__, checksum, "", reply_to);
}

bool ManagerReplies::HostProfileReply(const std::string& correlation_id, const std::string& reply_to,
                                      const switching::HostProfileMsg& reply) {
  EndIfFailed(reply);
  return Send(__func__, reply, correlation_id, reply_to);
}

bool ManagerReplies::HostSwitchMigrationToKlnReply(
    const std::string& correlation_id, const std::string& reply_to,
    const switching::TransportNodeHostSwitchesMigrationMsg& reply) {
  return Send(__func__, reply, correlation_id, reply_to);
}

}  // namespace zem::zema
