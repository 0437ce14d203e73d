#include "app/zema/migration_files/vnic_migration_task.h"

#include <exception>
#include <utility>

#include "app/zema/covedb/config_files.h"
#include "app/zema/hostconfig/host_config_context.h"
#include "app/zema/migration_files/interface_request.h"
#include "app/zema/ports/vif_request.h"
#include "framework/log/log.h"
#include "platform/core/thread_name.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

}  // namespace

VnicMigrationTask::VnicMigrationTask(std::shared_ptr<HostConfigContext> context, Settings settings,
                                     bool vm_ports, bool knl_pnic)
    : HostConfigTaskQub(std::move(context), nullptr, "", "", {}, InStore::kNo, ""),
      settings_(std::move(settings)),
      vm_ports_(vm_ports),
      knl_pnic_(knl_pnic) {}

void VnicMigrationTask::Run() {
  SetThreadName("zema:vNicMigr");
  ZLOG_INFO("VnicMigrationTask started");
  MigrationResult before;
  ReadMigrationResult(settings_.result_file, &before);
  // Keeps the id and the outcome of a file that is not read this time.
  result_ = before;
  try {
    if (vm_ports_) LoadPortDataFromVmsMigrationFile(before);
    of_vms_ = refusals_.size();
    if (knl_pnic_ && PopulateKnlMigrationMsgFromFile(before)) ApplyHostConfig(false, false);
  } catch (const std::exception& e) {
    Refuse(std::string("VnicMigrationTask failed, error: ") + e.what());
  } catch (...) {
    Refuse("VnicMigrationTask failed with unknown error");
  }
  if ((vms_processed_ || knl_processed_) && !saved_) SaveMigrationOutcome();
  ZLOG_INFO("VnicMigrationTask ended");
}

void VnicMigrationTask::SaveMigrationOutcome() {
  const std::vector<std::string> errors = Errors();
  if (vms_processed_) result_.vms_succeeded = of_vms_ == 0;
  if (knl_processed_) result_.succeeded = errors.size() == of_vms_;
  SaveMigrationResult(settings_.result_file, result_, errors);
  saved_ = true;
}

bool VnicMigrationTask::Refuse(const std::string& text) {
  ZLOG_ERROR("41020", "[%s] %s", "VnicMigrationTask", text.c_str());
  refusals_.push_back(text);
  saved_ = false;
  return false;
}

std::vector<std::string> VnicMigrationTask::Errors() const {
  std::vector<std::string> all = refusals_;
  const std::vector<std::string> applying = ErrorTexts();
  all.insert(all.end(), applying.begin(), applying.end());
  return all;
}

// Returns false when there is nothing to do, or when the file cannot be used.
bool VnicMigrationTask::Load(const std::string& path, const std::string& done_id, const char* done_text,
                             std::string* id, bool* processed, MigrationRequest* request) {
  MigrationFile file(path);
  std::string error;
  const MigrationFile::Read read = file.Load(request, &error);
  if (read == MigrationFile::Read::kNone) {
    ZLOG_INFO("[%s] File %s is empty or does not exist", __func__, path.c_str());
    return false;
  }
  if (!done_id.empty() && request->request_id == done_id) {
    ZLOG_INFO("[%s] migration of %srequest-id %s has already finished successfully.", __func__, done_text,
              done_id.c_str());
    return false;
  }
  *processed = true;
  *id = request->request_id;
  return read == MigrationFile::Read::kDone || Refuse(error);
}

bool VnicMigrationTask::PopulateKnlMigrationMsgFromFile(const MigrationResult& before) {
  MigrationRequest request;
  if (!Load(settings_.knl_file, before.succeeded ? before.request_id : "", "", &result_.request_id,
            &knl_processed_, &request)) {
    return false;
  }
  migration_request_ = request.request_id;
  migration_result_file_ = settings_.result_file;
  std::string error;
  if (!context().files.RetrieveHostConfigMsgFromFile(&message_, &error)) return Refuse(error);
  // Without its id, the node would be treated as removed.
  if (!message_.has_transport_node_id()) return Refuse("The stored HostConfigMsg names no transport node");
  return PutIntoConfig(request, &message_, &error) || Refuse(error);
}

void VnicMigrationTask::LoadPortDataFromVmsMigrationFile(const MigrationResult& before) {
  MigrationRequest request;
  if (!Load(settings_.vms_file, before.vms_succeeded ? before.vms_request_id : "", "VMs ",
            &result_.vms_request_id, &vms_processed_, &request)) {
    return;
  }
  auto ports = std::make_shared<VmPortMap>(VmPortsOf(request));
  if (request.in && request.pre_create_dvports) {
    if (const Outcome created = settings_.create_ports(*ports); !created) Refuse(created.error());
  }
  settings_.keep_ports(std::move(ports));
}

}  // namespace zem::zema
