#include "app/zema/app/later_parts.h"

#include "app/zema/endpoint/vtep_request_tasks.h"
#include "app/zema/hostconfig/mmode_config_task.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

void NotServed(const char* what) { ZLOG_DEBUG("Not served on this host: %s", what); }

}  // namespace

void VifRequestSink::Detach(const orlane::zem::switching::VifAttachmentMsg&) { NotServed("detach of a VIF"); }

void VifRequestSink::Restore(const orlane::zem::switching::VifAttachmentMsg&) {
  NotServed("restore of a VIF");
}

std::unique_ptr<Runnable> EndpointTasks::MakeVtepRecoveryTask(
    const RequestOrigin&, const orlane::zem::switching::VTEPRecoveryRequestMsg&) {
  NotServed("endpoint recovery");
  return nullptr;
}

std::unique_ptr<Runnable> EndpointTasks::MakeVtepAdminStateTask(
    const RequestOrigin&, const orlane::zem::switching::VTEPAdminStateMgmtRequestMsg&) {
  NotServed("endpoint administrative state");
  return nullptr;
}

void EndpointTasks::SyncVtepAddresses(const RequestOrigin&, const orlane::zem::switching::VtepIPSyncMsg&) {
  NotServed("endpoint address synchronisation");
}

std::unique_ptr<Runnable> HostEndpointTasks::MakeVtepRecoveryTask(
    const RequestOrigin& origin, const orlane::zem::switching::VTEPRecoveryRequestMsg& request) {
  return std::make_unique<VtepRecoveryTask>(context_, origin.correlation_id, origin.reply_to, request);
}

std::unique_ptr<Runnable> HostEndpointTasks::MakeVtepAdminStateTask(
    const RequestOrigin& origin, const orlane::zem::switching::VTEPAdminStateMgmtRequestMsg& request) {
  return std::make_unique<VtepAdminStateTask>(context_, origin.correlation_id, origin.reply_to, request);
}

void HostEndpointTasks::SyncVtepAddresses(const RequestOrigin& origin,
                                          const orlane::zem::switching::VtepIPSyncMsg& request) {
  VtepIPSync(context_, origin.reply_to, request);
}

std::unique_ptr<Runnable> MaintenanceTasks::MakeMmodeConfigTask(
    const RequestOrigin&, const orlane::zem::switching::MaintenanceModeConfigMsg&) {
  NotServed("maintenance mode");
  return nullptr;
}

std::unique_ptr<Runnable> HostMaintenanceTasks::MakeMmodeConfigTask(
    const RequestOrigin& origin, const orlane::zem::switching::MaintenanceModeConfigMsg& request) {
  return std::make_unique<MmodeConfigTaskQub>(context_, origin.sender, origin.correlation_id, origin.reply_to,
                                              request);
}

}  // namespace zem::zema
