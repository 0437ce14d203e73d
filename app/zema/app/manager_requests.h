#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "app/zema/manager/port_attached.h"

namespace orlane::zem::switching {
class ChecksumMsg;
class HostConfigAckMsg;
class HostConfigMsg;
class HostProfileMsg;
class LogicalSwitchMsg;
class MaintenanceModeConfigMsg;
class VTEPAdminStateMgmtRequestMsg;
class VTEPRecoveryRequestMsg;
class VifAttachmentMsg;
class VtepIPSyncMsg;
}  // namespace orlane::zem::switching

namespace zem {
class Runnable;
}  // namespace zem

namespace zem::zema {

class MpaMessageSender;

/// Where a request of the manager came from and where its reply goes.
struct RequestOrigin {
  MpaMessageSender* sender = nullptr;
  std::string correlation_id;
  std::string reply_to;
  /// The bus header as it arrived.
  std::string header;
};

/// How this node carries out the manager's requests: the operations either make the task that carries out a
/// request, or deliver a response for which a thread waits.
///
/// Threads: called by the receive callback, so no operation may wait for the manager or for the host.
class ManagerRequests {
 public:
  virtual ~ManagerRequests() = default;

  // The task that carries out the request; null when it cannot be made, which the dispatcher then logs or
  // answers.
  virtual std::unique_ptr<Runnable> HostConfig(const RequestOrigin& origin,
                                               orlane::zem::switching::HostConfigMsg message) = 0;
  virtual std::unique_ptr<Runnable> LogicalSwitch(
      const RequestOrigin& origin, const orlane::zem::switching::LogicalSwitchMsg& message) = 0;
  /// `bytes` hold a LogicalSwitchBulkMsg.  Only the task parses it, because it may hold thousands of
  /// switches.
  virtual std::unique_ptr<Runnable> LogicalSwitchFullSync(const RequestOrigin& origin, std::string bytes) = 0;
  virtual std::unique_ptr<Runnable> Restore(const RequestOrigin& origin,
                                            const orlane::zem::switching::ChecksumMsg& message) = 0;
  virtual std::unique_ptr<Runnable> HostProfile(const RequestOrigin& origin,
                                                const orlane::zem::switching::HostProfileMsg& message) = 0;
  virtual std::unique_ptr<Runnable> MaintenanceMode(
      const RequestOrigin& origin, const orlane::zem::switching::MaintenanceModeConfigMsg& message) = 0;
  virtual std::unique_ptr<Runnable> VtepRecovery(
      const RequestOrigin& origin, const orlane::zem::switching::VTEPRecoveryRequestMsg& message) = 0;
  virtual std::unique_ptr<Runnable> VtepAdminState(
      const RequestOrigin& origin, const orlane::zem::switching::VTEPAdminStateMgmtRequestMsg& message) = 0;

  /// Queues the tasks that read the endpoints' addresses.
  virtual void SyncVtepAddresses(const RequestOrigin& origin,
                                 const orlane::zem::switching::VtepIPSyncMsg& message) = 0;
  /// The manager has removed the attachment.
  virtual void DetachVif(const orlane::zem::switching::VifAttachmentMsg& vif) = 0;
  /// The manager asks for the VIF's previous port to be restored.
  virtual void RestoreVif(const orlane::zem::switching::VifAttachmentMsg& vif) = 0;
  /// Wakes the call that waits for the manager's response about a VIF.
  virtual void VifResult(const std::string& rpc_id, std::unique_ptr<PortAttached> result) = 0;

  virtual void AcknowledgeHostConfig(const std::string& reply_to,
                                     const orlane::zem::switching::HostConfigAckMsg& ack) = 0;
  /// Answers a host profile that cannot be parsed or applied.
  virtual void RefuseHostProfile(const RequestOrigin& origin, const std::string& error) = 0;
  /// Answers a request whose queue is full.  `type` is the message's name without its package.
  virtual void Refuse(const RequestOrigin& origin, std::string_view type, std::string payload,
                      const std::string& reason) = 0;
};

}  // namespace zem::zema
