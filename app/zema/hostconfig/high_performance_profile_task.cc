#include "app/zema/hostconfig/high_performance_profile_task.h"

#include <algorithm>

#include "app/zema/covedb/config_files.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/hostswitch/high_performance_profile.h"
#include "app/zema/manager/mpa_message_sender.h"
#include "app/zema/proxy/lum_commands.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

}  // namespace

void HighPerformanceProfileTask::Run() {
  ZLOG_INFO("HighPerformanceProfileTask started..");
  switching::HostConfigMsg config;
  std::string error;
  const bool found = settings_.files.RetrieveHostConfigMsgFromFile(&config, &error);
  if (found) {
    ZLOG_INFO("HostConfigMsg retrieved from the disk.");
  } else {
    ZLOG_INFO("HostConfig not retrieved from the disk. Error [%s]", error.c_str());
  }
  bool was_pending = false;
  bool stopped = false;
  while (!stopped) {
    const bool pending = found && Pending(config);
    was_pending = was_pending || pending;
    if (!pending) {
      ZLOG_INFO("isPendingMaintenanceModePropertyPresent : [%d], hostConfigFound : [%d]", pending, found);
      break;
    }
    std::string reply;
    if (settings_.lum.InvokeCommand("fetchMMode()", "true", &reply) == LumCommands::kSucceeded) {
      if (!Apply(config)) break;
      // The host left the maintenance mode in between.
      stopped = !settings_.pause(std::chrono::seconds(settings_.retry_interval()));
      continue;
    }
    const int interval = settings_.retry_interval();
    ZLOG_INFO("The host is not in maintenance mode. Going back to sleep for [%d] seconds.", interval);
    stopped = !settings_.pause(std::chrono::seconds(interval));
  }
  ZLOG_INFO("Completing the HighPerformanceProfileTask and setting the running task ptr to NULL.");
  settings_.done();
  // When the agent ends first, no outcome is reported: settings that are still pending have not been applied.
  if (was_pending && !stopped) Tell(config);
}

bool HighPerformanceProfileTask::Pending(const switching::HostConfigMsg& config) const {
  return std::any_of(config.host_switches().begin(), config.host_switches().end(), [this](const auto& each) {
    std::string value;
    const uint32_t code = settings_.host_prop(each.id(), kPendingUserActions, &value);
    if (code != 0 && code != kSwitchNotFound) {
      ZLOG_ERROR("42009", " [HighPerformanceProfileTask] GetHostConfigProp err %s",
                 SwitchErrorText(code).c_str());
    }
    return code == 0 && value.starts_with(kMaintenanceModeAction);
  });
}

bool HighPerformanceProfileTask::Apply(const switching::HostConfigMsg& config) {
  bool pending = false;
  bool good = true;
  for (const auto& host_switch : config.host_switches()) {
    good = settings_.profile.ProcessHighPerformanceProfile(host_switch, &errors_, &pending) && good;
  }
  if (good && !pending) ZLOG_INFO("The call to DP script no more returned pending maintenance mode.");
  return good && pending;
}

void HighPerformanceProfileTask::Tell(const switching::HostConfigMsg& config) const {
  if (settings_.sender == nullptr) return;
  switching::TransportNodeEventMsg event;
  event.set_id(config.id());
  event.set_transport_node_id(config.transport_node_id());
  for (const std::string& error : errors_) event.add_error(error);
  settings_.sender->SendTransportNodeEventMsg("", event);
}

}  // namespace zem::zema
