#pragma once

#include <memory>
#include <string>

#include "app/zema/app/manager_requests.h"

namespace zem::zema {

class ConfigFiles;
class IOService;
class Realization;
struct VifRequest;

/// The request to detach a VIF that the manager has removed.
std::shared_ptr<VifRequest> DetachRequestOf(const orlane::zem::switching::VifAttachmentMsg& vif);
/// The request to restore the port that a VIF had.
std::shared_ptr<VifRequest> RestoreRequestOf(const orlane::zem::switching::VifAttachmentMsg& vif);

/// The manager's requests on a hypervisor host, carried out by the current realization.
///
/// Holds the realization weakly: a request that arrives after the realization has ended changes nothing.
class HostRequests final : public ManagerRequests {
 public:
  /// `realization` has been set up.  `sender`, `files` and `io` outlive this object.
  HostRequests(const std::shared_ptr<Realization>& realization, MpaMessageSender& sender, ConfigFiles& files,
               IOService& io);
  ~HostRequests() override;

  std::unique_ptr<Runnable> HostConfig(const RequestOrigin& origin,
                                       orlane::zem::switching::HostConfigMsg message) override;
  std::unique_ptr<Runnable> LogicalSwitch(const RequestOrigin& origin,
                                          const orlane::zem::switching::LogicalSwitchMsg& message) override;
  std::unique_ptr<Runnable> LogicalSwitchFullSync(const RequestOrigin& origin, std::string bytes) override;
  std::unique_ptr<Runnable> Restore(const RequestOrigin& origin,
                                    const orlane::zem::switching::ChecksumMsg& message) override;
  std::unique_ptr<Runnable> HostProfile(const RequestOrigin& origin,
                                        const orlane::zem::switching::HostProfileMsg& message) override;
  std::unique_ptr<Runnable> MaintenanceMode(
      const RequestOrigin& origin, const orlane::zem::switching::MaintenanceModeConfigMsg& message) override;
  std::unique_ptr<Runnable> VtepRecovery(
      const RequestOrigin& origin, const orlane::zem::switching::VTEPRecoveryRequestMsg& message) override;
  std::unique_ptr<Runnable> VtepAdminState(
      const RequestOrigin& origin,
      const orlane::zem::switching::VTEPAdminStateMgmtRequestMsg& message) override;
  void SyncVtepAddresses(const RequestOrigin& origin,
                         const orlane::zem::switching::VtepIPSyncMsg& message) override;
  void DetachVif(const orlane::zem::switching::VifAttachmentMsg& vif) override;
  void RestoreVif(const orlane::zem::switching::VifAttachmentMsg& vif) override;
  void VifResult(const std::string& rpc_id, std::unique_ptr<PortAttached> result) override;
  void AcknowledgeHostConfig(const std::string& reply_to,
                             const orlane::zem::switching::HostConfigAckMsg& ack) override;
  void RefuseHostProfile(const RequestOrigin& origin, const std::string& error) override;
  void Refuse(const RequestOrigin& origin, std::string_view type, std::string payload,
              const std::string& reason) override;

 private:
  struct Contexts;

  const std::unique_ptr<const Contexts> contexts_;
  const std::weak_ptr<Realization> realization_;
  MpaMessageSender& sender_;
  ConfigFiles& files_;
  IOService& io_;
};

}  // namespace zem::zema
