#pragma once

#include <string>

#include "app/zema/manager/mpa_message_sender.h"

namespace google::protobuf {
class MessageLite;
}

namespace zem::zema {

class ManagerSender;

/// The realization's answers and events, each sent under the name of its message.
///
/// Threads: any but a provider's, because sending may wait for the manager.
class ManagerReplies final : public MpaMessageSender {
 public:
  /// `sender` has to outlive it.
  explicit ManagerReplies(ManagerSender& sender) : sender_(sender) {}

  bool HostConfigReply(const std::string& correlation_id, const std::string& reply_to,
                       const orlane::zem::switching::HostConfigMsg& reply) override;
  bool SendHostConfigAckMsg(const std::string& reply_to,
                            const orlane::zem::switching::HostConfigAckMsg& ack) override;
  bool TnMmodeConfigReply(const std::string& correlation_id, const std::string& reply_to,
                          const orlane::zem::switching::MaintenanceModeConfigResultMsg& reply) override;
  bool VtepRecoveryReply(const std::string& correlation_id, const std::string& reply_to,
                         const orlane::zem::switching::VTEPRecoveryResultMsg& reply) override;
  bool VtepAdminStateReply(const std::string& correlation_id, const std::string& reply_to,
                           const orlane::zem::switching::VTEPAdminStateMgmtResultMsg& reply) override;
  bool LogicalSwitchReply(const std::string& reply_to,
                          const orlane::zem::switching::LogicalSwitchMsg& reply) override;
  bool LogicalSwitchFullSyncReply(const std::string& correlation_id, const std::string& reply_to,
                                  const orlane::zem::switching::LogicalSwitchBulkMsg& reply) override;
  bool SendTransportNodeEventMsg(const std::string& reply_to,
                                 const orlane::zem::switching::TransportNodeEventMsg& event) override;
  bool SendRestoreReplyMsg(const std::string& reply_to,
                           const orlane::zem::switching::ChecksumMsg& checksum) override;
  bool HostProfileReply(const std::string& correlation_id, const std::string& reply_to,
                        const orlane::zem::switching::HostProfileMsg& reply) override;
  bool HostSwitchMigrationToKlnReply(
      const std::string& correlation_id, const std::string& reply_to,
      const orlane::zem::switching::TransportNodeHostSwitchesMigrationMsg& reply) override;

 private:
  bool Send(const char* operation, const google::protobuf::MessageLite& message,
            const std::string& correlation_id, const std::string& reply_to);

  ManagerSender& sender_;
};

}  // namespace zem::zema
