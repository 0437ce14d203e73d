// The replies to the manager; each is sent under the full name of its message.

#include "app/zema/app/zema_app.h"
#include "proto/switching/switching.pb.h"

namespace zem::Tarvik {
namespace {

namespace switching = orlane::zem::switching;

constexpr const char* kLogicalSwitchAck = "LogicalSwitchACK";

}  // namespace

bool ZemaApp::HostConfigReply(const std::string& correlation_id, const std::string& reply_to,
                              const switching::HostConfigMsg& reply) {
  return SendToManager(__func__, reply, correlation_id, reply_to);
}

bool ZemaApp::SendHostConfigAckMsg(const std::string& reply_to, const switching::HostConfigAckMsg& ack) {
  return SendToManager(__func__, ack, "", reply_to);
}

bool ZemaApp::TnMmodeConfigReply(const std::string& correlation_id, const std::string& reply_to,
                                 const switching::MaintenanceModeConfigResultMsg& reply) {
  return SendToManager(__func__, reply, correlation_id, reply_to);
}

bool ZemaApp::VtepRecoveryReply(const std::string& correlation_id, const std::string& reply_to,
                                const switching::VTEPRecoveryResultMsg& reply) {
  return SendToManager(__func__, reply, correlation_id, reply_to);
}

bool ZemaApp::VtepAdminStateReply(const std::string& correlation_id, const std::string& reply_to,
                                  const switching::VTEPAdminStateMgmtResultMsg& reply) {
  return SendToManager(__func__, reply, correlation_id, reply_to);
}

bool ZemaApp::LogicalSwitchReply(const std::string& reply_to, const switching::LogicalSwitchMsg& reply) {
  return SendToManager(__func__, reply, kLogicalSwitchAck, reply_to);
}

bool ZemaApp::LogicalSwitchFullSyncReply(const std::string& correlation_id, const std::string& reply_to,
                                         const switching::LogicalSwitchBulkMsg& reply) {
  return SendToManager(__func__, reply, correlation_id, reply_to);
}

bool ZemaApp::SendTransportNodeEventMsg(const std::string& reply_to,
                                        const switching::TransportNodeEventMsg& event) {
  return SendToManager(__func__, event, "", reply_to);
}

bool ZemaApp::SendRestoreReplyMsg(const std::string& reply_to, const switching::ChecksumMsg& checksum) {
  return SendToManager(__func__, checksum, "", reply_to);
}

bool ZemaApp::HostProfileReply(const std::string& correlation_id, const std::string& reply_to,
                               const switching::HostProfileMsg& reply) {
  return SendToManager(__func__, reply, correlation_id, reply_to);
}

bool ZemaApp::HostSwitchMigrationToKlnReply(const std::string& correlation_id, const std::string& reply_to,
                                            const switching::TransportNodeHostSwitchesMigrationMsg& reply) {
  return SendToManager(__func__, reply, correlation_id, reply_to);
}

}  // namespace zem::Tarvik
