#include "app/zema/hostconfig/host_switch_preparation.h"

#include "app/zema/hostconfig/follow_up_tasks.h"
#include "app/zema/hostconfig/host_config_context.h"
#include "app/zema/hostconfig/port_opaque_data.h"
#include "app/zema/hostlib/config_ops_manager.h"
#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostswitch/port_group_vms.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/proxy/switch_id.h"
#include "app/zema/state/host_config_state.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr uint32_t kTypeKln = 2;
constexpr uint32_t kTypeToConvert = 3;

// How much a switch reports about VIFs.
constexpr uint32_t kCollectionOnce = 1;
constexpr uint32_t kCollectionNoRuntime = 2;
constexpr uint32_t kCollectionDone = 3;

constexpr const char* kInitialRevision = "0";

// The switch libraries need the id in the host's form, to which the message is converted only after its
// checks.
std::string HostForm(const std::string& id) {
  std::string converted = id;
  return ConvertDvsUuidToQubFormat(&converted) ? converted : id;
}

}  // namespace

void HostSwitchPreparation::PrepareFirst(Config* config) {
  ConvertSwitchTypes(config);
  RetrieveVmsConnectedToDvpg(context_.lum, config);
  if (!config->has_transport_node_id()) return;
  context_.host.SetHostId(config->transport_node_id());
  context_.follow_ups.UpdateTnUuidInFile(config->transport_node_id());
}

void HostSwitchPreparation::PrepareNext(Config* config) {
  ConvertSwitchTypes(config);
  if (context_.state.first_iteration_post_upgrade) {
    ZLOG_INFO("Upgrade was completed recently. Reset vifCollectionStatus to resend vmInformation");
    for (auto& host_switch : *config->mutable_host_switches()) {
      if (host_switch.vif_collection_status() != kCollectionDone) continue;
      ZLOG_INFO("Resetting vif collection status of kln: %s", host_switch.id().c_str());
      host_switch.set_vif_collection_status(kCollectionOnce);
    }
    SetSecurityProperty(*config);
    context_.state.first_iteration_post_upgrade = false;
    ZLOG_INFO("firstIterationPostUpgrade set to false");
  }
  if (config->revision() == kInitialRevision) SetSecurityProperty(*config);
  DisableRuntimeUpdates(*config);
}

void HostSwitchPreparation::ConvertSwitchTypes(Config* config) {
  bool converted = false;
  for (auto& host_switch : *config->mutable_host_switches()) {
    if (!host_switch.has_type() || host_switch.type() != kTypeToConvert) continue;
    ZLOG_INFO("Resetting host-switch type to kln on [%s]", host_switch.id().c_str());
    host_switch.set_type(kTypeKln);
    converted = true;
  }
  context_.state.kln_follows_health = converted;
  ZLOG_INFO("Keep KLN status in-sync with zema health: %s", converted ? "yes" : "no");
}

void HostSwitchPreparation::SetSecurityProperty(const Config& config) {
  for (const auto& host_switch : config.host_switches()) {
    if (!host_switch.security()) continue;
    const std::string id = HostForm(host_switch.id());
    // A switch that has yet to be created has no properties.
    context_.switches.SetHostProp(id, port_props::kKlnSecurityEnabled, "true");
  }
}

void HostSwitchPreparation::DisableRuntimeUpdates(const Config& config) {
  bool wanted = false;
  for (const auto& host_switch : config.host_switches()) {
    wanted = wanted || host_switch.vif_collection_status() == kCollectionNoRuntime;
  }
  if (!wanted) return;
  ZLOG_INFO("Disabling VIF runtime updates & KLN status health based on TN config");
  std::string reply;
  const int status = context_.lum.InvokeRPC(LumOperation::kDisableRuntimeUpdates, "", &reply);
  if (status != LumCommands::kRpcSucceeded) {
    ZLOG_ERROR("42009", "[%s] Failed to disable VIF runtime updates: %s", __func__, reply.c_str());
  }
  const bool cleanup = status == LumCommands::kRpcSucceeded && reply == "disabled";
  ZLOG_INFO("Port opaque data cleanup required: %s", cleanup ? "yes" : "no");
  context_.state.runtime_updates_disabled = true;
  if (!cleanup) return;
  for (const auto& host_switch : config.host_switches()) {
    if (host_switch.vif_collection_status() != kCollectionNoRuntime) continue;
    ZLOG_INFO("Clearing port opaque data on kln: %s", host_switch.id().c_str());
    ClearOpaqueDataOnPorts(context_, HostForm(host_switch.id()));
  }
}

}  // namespace zem::zema
