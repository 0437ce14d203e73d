#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "app/zema/manager/mpa_message_sender.h"
#include "framework/tasks/runnable.h"

namespace orlane::zem::switching {
class HostConfigMsg;
class MaintenanceModeConfigMsg;
class VTEPAdminStateMgmtRequestMsg;
class VTEPRecoveryRequestMsg;
class VifAttachmentMsg;
class VtepIPSyncMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

struct EndpointContext;
struct MmodeContext;

/// Where a request of the manager came from, and goes back to.
struct RequestOrigin {
  MpaMessageSender* sender = nullptr;
  std::string correlation_id;
  std::string reply_to;
  /// The bus header as it came.
  std::string header;
};

/// The host's side of VIFs: what the manager asks of single ports.  This default takes nothing.
///
/// Threads: the receive thread; nothing here may wait.
class VifRequestSink {
 public:
  virtual ~VifRequestSink() = default;

  /// The manager has removed the attachment.
  virtual void Detach(const orlane::zem::switching::VifAttachmentMsg& vif);
  /// The manager wants the port back that the VIF had.
  virtual void Restore(const orlane::zem::switching::VifAttachmentMsg& vif);
};

/// What the manager asks of tunnel endpoints.  Null where a task cannot be made; this default makes none.
class EndpointTasks {
 public:
  virtual ~EndpointTasks() = default;

  virtual std::unique_ptr<Runnable> MakeVtepRecoveryTask(
      const RequestOrigin& origin, const orlane::zem::switching::VTEPRecoveryRequestMsg& request);
  virtual std::unique_ptr<Runnable> MakeVtepAdminStateTask(
      const RequestOrigin& origin, const orlane::zem::switching::VTEPAdminStateMgmtRequestMsg& request);
  /// Runs on the receive thread, so it must not wait: it makes its own tasks.
  virtual void SyncVtepAddresses(const RequestOrigin& origin,
                                 const orlane::zem::switching::VtepIPSyncMsg& request);
};

/// Those of this host.
class HostEndpointTasks final : public EndpointTasks {
 public:
  explicit HostEndpointTasks(std::shared_ptr<EndpointContext> context) : context_(std::move(context)) {}

  std::unique_ptr<Runnable> MakeVtepRecoveryTask(
      const RequestOrigin& origin, const orlane::zem::switching::VTEPRecoveryRequestMsg& request) override;
  std::unique_ptr<Runnable> MakeVtepAdminStateTask(
      const RequestOrigin& origin,
      const orlane::zem::switching::VTEPAdminStateMgmtRequestMsg& request) override;
  void SyncVtepAddresses(const RequestOrigin& origin,
                         const orlane::zem::switching::VtepIPSyncMsg& request) override;

 private:
  const std::shared_ptr<EndpointContext> context_;
};

/// Maintenance mode.  Null where a task cannot be made; this default makes none.
class MaintenanceTasks {
 public:
  virtual ~MaintenanceTasks() = default;

  virtual std::unique_ptr<Runnable> MakeMmodeConfigTask(
      const RequestOrigin& origin, const orlane::zem::switching::MaintenanceModeConfigMsg& request);
};

/// That of this host.
class HostMaintenanceTasks final : public MaintenanceTasks {
 public:
  explicit HostMaintenanceTasks(std::shared_ptr<MmodeContext> context) : context_(std::move(context)) {}

  std::unique_ptr<Runnable> MakeMmodeConfigTask(
      const RequestOrigin& origin, const orlane::zem::switching::MaintenanceModeConfigMsg& request) override;

 private:
  const std::shared_ptr<MmodeContext> context_;
};

/// What comes with the host's other services; each may be replaced before the start, none is null.
struct LaterParts {
  std::shared_ptr<VifRequestSink> vif_requests = std::make_shared<VifRequestSink>();
  std::shared_ptr<EndpointTasks> endpoints = std::make_shared<EndpointTasks>();
  std::shared_ptr<MaintenanceTasks> maintenance = std::make_shared<MaintenanceTasks>();
};

}  // namespace zem::zema
