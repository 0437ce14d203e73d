#pragma once

#include <string>

namespace orlane::zem::switching {
class ChecksumMsg;
class HostConfigAckMsg;
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

/// The interface by which tasks send messages to the manager.  An answer uses the request's correlation id
/// and reply-to.
///
/// All operations may wait for the manager, up to `mp.vifOperationTimeout`, so none may be called on a
/// provider's thread.  They return false, after a log line, when the message could not be handed over.
///
/// Threads: any but a provider's.
class MpaMessageSender {
 public:
  virtual ~MpaMessageSender() = default;

  virtual bool HostConfigReply(const std::string& correlation_id, const std::string& reply_to,
                               const orlane::zem::switching::HostConfigMsg& reply) = 0;
  /// Says that a configuration has arrived and will be carried out.
  virtual bool SendHostConfigAckMsg(const std::string& reply_to,
                                    const orlane::zem::switching::HostConfigAckMsg& ack) = 0;
  virtual bool TnMmodeConfigReply(const std::string& correlation_id, const std::string& reply_to,
                                  const orlane::zem::switching::MaintenanceModeConfigResultMsg& reply) = 0;
  virtual bool VtepRecoveryReply(const std::string& correlation_id, const std::string& reply_to,
                                 const orlane::zem::switching::VTEPRecoveryResultMsg& reply) = 0;
  virtual bool VtepAdminStateReply(const std::string& correlation_id, const std::string& reply_to,
                                   const orlane::zem::switching::VTEPAdminStateMgmtResultMsg& reply) = 0;
  /// All acknowledgements have the same correlation id.
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
