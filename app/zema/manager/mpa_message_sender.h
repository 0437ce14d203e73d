#pragma once

#include <string>

namespace orlane::zem::switching {
class ChecksumMsg;
class HostConfigMsg;
class HostProfileMsg;
class LogicalSwitchBulkMsg;
class LogicalSwitchMsg;
class MaintenanceModeConfigResultMsg;
class TransportNodeEventMsg;
class TransportNodeHostSwitchesMigrationMsg;
class VTEPAdminStateMgmtResultMsg;
class VTEPRecoveryResultMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

/// The only way out of a task to the manager.  An answer goes on the request's correlation id and reply-to.
///
/// All operations wait for the manager where they have to, up to `mp.vifOperationTimeout`, so none may be
/// called on a provider's thread.  False when the message could not be handed over; a line has said so then.
///
/// Threads: any but a provider's.
class MpaMessageSender {
 public:
  virtual ~MpaMessageSender() = default;

  virtual bool HostConfigReply(const std::string& correlation_id, const std::string& reply_to,
                               const orlane::zem::switching::HostConfigMsg& reply) = 0;
  virtual bool TnMmodeConfigReply(const std::string& correlation_id, const std::string& reply_to,
                                  const orlane::zem::switching::MaintenanceModeConfigResultMsg& reply) = 0;
  virtual bool VtepRecoveryReply(const std::string& correlation_id, const std::string& reply_to,
                                 const orlane::zem::switching::VTEPRecoveryResultMsg& reply) = 0;
  virtual bool VtepAdminStateReply(const std::string& correlation_id, const std::string& reply_to,
                                   const orlane::zem::switching::VTEPAdminStateMgmtResultMsg& reply) = 0;
  /// The correlation is the same for all acknowledgements.
  virtual bool LogicalSwitchReply(const std::string& reply_to,
                                  const orlane::zem::switching::LogicalSwitchMsg& reply) = 0;
  virtual bool LogicalSwitchFullSyncReply(const std::string& correlation_id, const std::string& reply_to,
                                          const orlane::zem::switching::LogicalSwitchBulkMsg& reply) = 0;
  virtual bool SendTransportNodeEventMsg(const std::string& reply_to,
                                         const orlane::zem::switching::TransportNodeEventMsg& event) = 0;
  virtual bool SendRestoreReplyMsg(const std::string& reply_to,
                                   const orlane::zem::switching::ChecksumMsg& checksum) = 0;
  virtual bool HostProfileReply(const std::string& correlation_id, const std::string& reply_to,
                                const orlane::zem::switching::HostProfileMsg& reply) = 0;
  virtual bool HostSwitchMigrationToKlnReply(
      const std::string& correlation_id, const std::string& reply_to,
      const orlane::zem::switching::TransportNodeHostSwitchesMigrationMsg& reply) = 0;
};

}  // namespace zem::zema
