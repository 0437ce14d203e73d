#include "app/zema/hostswitch/dvs_configuration.h"

#include <utility>

#include "app/zema/proxy/error_sink.h"
#include "app/zema/proxy/lum_commands.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::HostConfigMsg;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr int kDone = 0;
constexpr int kFailed = -1;
constexpr const char* kOk = "ok";
constexpr std::chrono::seconds kReadyPause{5};

const char* Outcome(bool success) { return success ? "Success" : "Failure"; }

}  // namespace

DvsConfiguration::DvsConfiguration(LumCommands& lum, ErrorSink& errors, DvsConfigurationSettings settings)
    : lum_(lum), errors_(errors), settings_(std::move(settings)) {}

int DvsConfiguration::ConfigureDvses(const HostConfigMsg& config, MigratedPnics* migrated) {
  if (!settings_.stateless) ZLOG_INFO("Start KLN realization, processStatelessQub70NetworkPlugin = false");
  if (config.has_phase() && config.phase() == HostConfigMsg::PHASE1_PARTIAL) {
    ZLOG_INFO("HostConfigMsg PHASE1_PARTIAL, Skipping KLN config and will be handled in phase2.");
    return kDone;
  }
  if (settings_.stateless) return ConfigureStateless(config, migrated);
  const bool applied = Apply(config, migrated);
  ZLOG_INFO("InvokeApplyHostSwitch for KLN completed, klnConfig%s", Outcome(applied));
  return applied ? kDone : kFailed;
}

bool DvsConfiguration::Apply(const HostConfigMsg& config, MigratedPnics* migrated) {
  std::string error;
  const auto records = BuildSwitchRecords(config, migrated, &error);
  if (!records) {
    ZLOG_ERROR("42009", "[%s] %s", __func__, error.c_str());
    errors_.Add(ErrorSink::kGeneral, error);
    return false;
  }
  return settings_.apply(*records);
}

int DvsConfiguration::ConfigureStateless(const HostConfigMsg& config, MigratedPnics* migrated) {
  if (!TellInstalled(config)) return kFailed;
  const int switches = config.host_switches_size();
  if (switches == 0) {
    ZLOG_INFO("No KLN to configure for givenStateless host");
    return kDone;
  }
  if (!config.has_phase() || config.phase() != HostConfigMsg::PHASE2_COMBINED) {
    const std::string local = "Unexpected HostConfigMsg klnToConfigure = " + std::to_string(switches) +
                              " and phase != PHASE2_COMBINED";
    Refuse(local.c_str(),
           "Failed to configure host in HostConfigMsg phase. Please update Manager TransportNodeProfile, "
           "Peakhall Cluster Host Profile and reboot host.");
    return kFailed;
  }
  ZLOG_INFO("Start KLN realization forStatelessQubRebootCase, klnToConfigure = %d", switches);
  if (!RealizedByProfile(switches)) return kFailed;
  const bool applied = Apply(config, migrated);
  ZLOG_INFO("InvokeApplyHostSwitch for %d KLN completed, klnConfig%s", switches, Outcome(applied));
  // The flags stay set, so that the manager's next attempt gets to this point again.
  if (!applied) return kFailed;
  if (!Send("ClearStatelessQubDvsFlags()",
            "Failed to clear stateless Qub HostProfile Engine DVS flags. Please check Stateless host config "
            "and reboot host. error ["))
    return kFailed;
  ZLOG_INFO("SuccessFully cleared Stateless Dvs flags");
  return kDone;
}

bool DvsConfiguration::TellInstalled(const HostConfigMsg& config) {
  ZLOG_INFO("posting ZemInstallSuccess event.");
  if (!Send("PostZemInstallSuccessEvent()",
            "Could not post ZemInstallSuccess event to corvd. Please check Stateless host config and reboot "
            "host. error ["))
    return false;
  ZLOG_INFO("Posted ZemInstallSuccess event");
  if (!Send("CheckAndClearZemInstallOpaqueSwitchStatusFlag()",
            "Could not clear ZemInstallOpaqueSwitchStatus flag. Please check Stateless host config and "
            "reboot host. error ["))
    return false;
  ZLOG_INFO("Cleared ZEM_INSTALL_OPAQUE_SWITCH_STATUS flag if present");
  if (settings_.migrate_nvs_knls && config.has_qub_if_migration()) {
    if (!Send("CheckAndClearZemInstallStatusFlag()",
              "Could not clear ZemInstallStatus flag. Please check Stateless host config and reboot host. "
              "error ["))
      return false;
    ZLOG_INFO("Cleared ZEM_INSTALL_STATUS flag if present");
  }
  ZLOG_INFO("Successfully posted ZemInstallSuccess event and cleared flags.");
  return true;
}

bool DvsConfiguration::RealizedByProfile(int switches) {
  std::string reply;
  const bool required =
      lum_.InvokeCommand("IsZemDvsConfigRequiredSet()", "", &reply) == LumCommands::kSucceeded &&
      reply == kOk;
  ZLOG_INFO("IsZemDvsConfigRequiredSet() = %s, reply = %s", required ? "true" : "false", reply.c_str());
  if (!required) {
    Refuse(
        "NetworkPlugin did not set ZEM_DVS_CONFIG_REQUIRED flag. Please check Stateless host config and "
        "reboot it.",
        "Manager TransportNodeProfile configuration does not match Host Profile applied to Peakhall cluster "
        "this host is part of. TransportNodeProfile has KLN configuration but Host Profile applied does not "
        "have it. Please update Manager TransportNodeProfile, Peakhall Cluster Host Profile and reboot "
        "host.");
    return false;
  }
  const bool ready = PollReady(switches);
  if (!ready) {
    Refuse(
        "NetworkPlugin did not set DVS_READY flag before timeout. Please check Stateless host config and "
        "reboot it.",
        "Manager TransportNodeProfile configuration does not match Host Profile applied to Peakhall cluster "
        "this host is part of. TransportNodeProfile has KLN configuration but HostProfileEngine did not "
        "create KLN on host post reboot before timeout. Please update Manager TransportNodeProfile, Peakhall "
        "Cluster Host Profile and reboot host.");
  }
  return ready;
}

bool DvsConfiguration::PollReady(int switches) {
  std::string reply;
  std::chrono::seconds elapsed{0};
  bool ready = false;
  while (true) {
    ready = lum_.InvokeCommand("IsDvsReadySet()", kOk, &reply) == LumCommands::kSucceeded;
    if (ready) {
      ZLOG_INFO("DVS_READY Set by Network Plugin.");
      break;
    }
    if (elapsed >= settings_.ready_timeout) {
      ZLOG_ERROR("42009", "Timeout reached waiting for DVS_READY");
      break;
    }
    ZLOG_INFO("Sleeping for DVS_READY to be set by NetworkPlugin, curr elapsed sleepTime = %d, reply = %s",
              static_cast<int>(elapsed.count()), reply.c_str());
    if (!settings_.pause(kReadyPause)) break;
    elapsed += kReadyPause;
  }
  ZLOG_INFO("Polling result for DVS_READY = %d, klnToConfigure = %d", ready ? 1 : 0, switches);
  return ready;
}

bool DvsConfiguration::Send(const char* command, const char* problem) {
  std::string reply;
  if (lum_.InvokeCommand(command, kOk, &reply) == LumCommands::kSucceeded) return true;
  const std::string text = problem + reply + "]. ";
  ZLOG_ERROR("42009", "%s", text.c_str());
  errors_.Add(ErrorSink::kGeneral, text);
  return false;
}

void DvsConfiguration::Refuse(const char* local, const std::string& for_manager) {
  ZLOG_ERROR("42009", "%s, mpError = %s", local, for_manager.c_str());
  errors_.Add(ErrorSink::kGeneral, for_manager);
}

}  // namespace zem::zema
