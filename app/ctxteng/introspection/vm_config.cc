#include "app/ctxteng/introspection/vm_config.h"

#include <utility>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/introspection/config_status.h"
#include "app/ctxteng/introspection/mux_operations.h"
#include "app/ctxteng/introspection/mux_pusher.h"
#include "app/ctxteng/introspection/surroundings.h"
#include "framework/log/log.h"
#include "platform/upm/upm_service.h"
#include "proto/context/agent_config.pb.h"
#include "proto/context/mux_config.pb.h"

namespace Ctxt {
namespace {

namespace ouvi = orlane::zem::ouvi;
using zem::upm::Profile;
using zem::upm::ProfileUpdate;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

std::string SolutionOf(const Profile& profile) {
  orlane::zem::context::GiServiceProfileMsg service;
  if (!service.ParseFromString(profile.payload)) throw CtxtException("a GI service profile cannot be parsed");
  return service.solution_id().empty() ? service.service_solution_id() : service.solution_id();
}

void AddVm(const std::string& entity, uint32_t operation, const std::vector<Profile>& profiles,
           ouvi::MuxConfigMsg* config) {
  auto* const vm = config->add_vm_info();
  vm->set_entity_uuid(entity);
  vm->set_operation(operation);
  ZLOG_DEBUG("OuviConfig: Add VmConfig %d -----------", config->vm_info_size());
  ZLOG_DEBUG("OuviConfig:   operation: %s, entity id: %s", MuxOperationName(operation), entity.c_str());
  for (const Profile& profile : profiles) {
    auto* const solution = vm->add_solution();
    solution->set_id(SolutionOf(profile));
    solution->set_tag(profile.tag);
    solution->set_order(solution->id());
    ZLOG_DEBUG("OuviConfig:   Solution: id: %s, tag: %s, order: %s", solution->id().c_str(),
               solution->tag().c_str(), solution->order().c_str());
  }
}

void AddUpdate(const ProfileUpdate& update, ouvi::MuxConfigMsg* config) {
  ZLOG_DEBUG("OuviConfig: Processing Vm entity id: %s", update.entity_id.c_str());
  ZLOG_DEBUG("OuviConfig: New profile update list size: %zu", update.new_profiles.size());
  ZLOG_DEBUG("OuviConfig: Old profile update list size: %zu", update.old_profiles.size());
  if (update.new_profiles.empty()) {
    if (update.old_profiles.empty()) return;
    ZLOG_INFO("OuviConfig: Case: VM removed from a profile");
    AddVm(update.entity_id, kMuxDelete, update.old_profiles, config);
    return;
  }
  if (update.old_profiles.empty()) {
    ZLOG_INFO("OuviConfig: Case: VM added to a profile");
  } else {
    ZLOG_INFO("OuviConfig: Case: Profile updated or VM moved across profiles");
  }
  AddVm(update.entity_id, kMuxUpdate, update.new_profiles, config);
}

void Dump(const ouvi::MuxConfigMsg& config) {
  if (!ZLOG_WANTS(zem::kLogDebug)) return;
  ZLOG_DEBUG("OuviConfig: Mux Vm config message dump");
  int vms = 0;
  for (const auto& vm : config.vm_info()) {
    ZLOG_DEBUG(" Vm Info %d -- Opr: %s, uuid: %s", ++vms, MuxOperationName(vm.operation()),
               vm.entity_uuid().c_str());
    int solutions = 0;
    for (const auto& solution : vm.solution()) {
      ZLOG_DEBUG("  Solution %d -- id: %s, tag: %s, order: %s", ++solutions, solution.id().c_str(),
                 solution.tag().c_str(), solution.order().c_str());
    }
  }
}

}  // namespace

void VmConfig::Start(std::shared_ptr<zem::upm::UPMService> profile_service) {
  profile_service_ = std::move(profile_service);
  if (!profile_service_) return;
  const std::weak_ptr<VmConfig> weak = weak_from_this();
  profile_service_->Register(zem::upm::ENTITY_VM, {zem::upm::GI_SERVICE},
                             [weak](const std::vector<ProfileUpdate>& updates, bool full_sync) {
                               if (const auto self = weak.lock()) self->TakeProfiles(updates, full_sync);
                             });
  ZLOG_INFO("OuviConfig: Registered with UPM for GI_SERVICE and ENTITY_VM. VmConfig started successfully.");
}

void VmConfig::TakeProfiles(const std::vector<ProfileUpdate>& updates, bool full_sync) {
  ZLOG_INFO("OuviConfig: Received Upm callback, profileUpdateList size: %zu, fullSync: %s", updates.size(),
            full_sync ? "TRUE" : "FALSE");
  if (updates.empty()) return;
  const std::weak_ptr<VmConfig> weak = weak_from_this();
  pusher_->Post([weak, updates] {
    if (const auto self = weak.lock()) self->Process(updates);
  });
}

void VmConfig::Process(const std::vector<ProfileUpdate>& updates) {
  try {
    ouvi::MuxConfigMsg config;
    for (const ProfileUpdate& update : updates) AddUpdate(update, &config);
    Dump(config);
    const bool done = pusher_->Push(config) == 0;
    if (!done) ZLOG_WARN("Failed to push VMConfig to MUX");
    SendStatus(*health_, done ? ConfigStatus::kVmDone : ConfigStatus::kVmRefused);
  } catch (const CtxtProtobufError& error) {
    ZLOG_CTX_ERROR(152, "OuviConfig: Error in serializing VM config protobuf message, error: %s",
                   error.what());
    SendStatus(*health_, ConfigStatus::kVmNotSerialized);
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(351, "OuviConfig: Error in processing UPM VM config update message, error: %s",
                   error.what());
    SendStatus(*health_, ConfigStatus::kVmFailed);
  } catch (...) {
    ZLOG_CTX_ERROR(351, "OuviConfig: Unhandled exception in processing vm config updates");
    SendStatus(*health_, ConfigStatus::kVmFailed);
  }
  ZLOG_DEBUG("OuviConfig: UpmMonitorCallback exit");
}

void VmConfig::HandleMuxReconnect() {
  ZLOG_INFO("VmConfig: HandleMuxReconnect");
  const auto profiles = profile_service_
                            ? profile_service_->QueryEffective(zem::upm::GI_SERVICE, zem::upm::ENTITY_VM)
                            : std::vector<ProfileUpdate>();
  if (profiles.empty()) {
    ZLOG_INFO("No result from UPM for query effective profile");
    return;
  }
  ZLOG_INFO("Call UPM callback function to resync VM configs");
  TakeProfiles(profiles, true);
}

}  // namespace Ctxt
