#include "app/zema/hostswitch/stateless_host.h"

#include <optional>
#include <string>
#include <string_view>

#include "app/zema/proxy/error_sink.h"
#include "app/zema/proxy/lum_commands.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr std::string_view kOk = "ok|";
constexpr char kYes = '1';

// Returns nothing when the host does not answer.  An unknown flag must not count as one that is not set:
// where the flags are not set, the host's plugin gets the command to drop them.
std::optional<bool> IsSet(LumCommands& lum, const char* command, ErrorSink& errors) {
  std::string reply;
  const bool set = lum.InvokeCommand(command, "ok", &reply) == LumCommands::kSucceeded;
  if (set || !LumCommands::IsUnanswered(reply)) return set;
  errors.Add(ErrorSink::kGeneral, std::string(command) + " failed: [" + reply + "]");
  return std::nullopt;
}

}  // namespace

bool CheckQUBiVersion70AndUnusedCkln(LumCommands& lum, ErrorSink& errors, bool* unused_ckln) {
  std::string reply;
  const bool answered =
      lum.InvokeCommand("CheckQUBiVersion70AndUnusedCkln()", "", &reply) == LumCommands::kSucceeded;
  // The reply's text is two digits with one character between them.
  const bool readable = answered && reply.compare(0, kOk.size(), kOk) == 0 && reply.size() == kOk.size() + 3;
  if (!readable) {
    ZLOG_ERROR("42009", "CheckQUBiVersion70AndUnusedCkln reply %s", reply.c_str());
    errors.Add(ErrorSink::kGeneral, reply);
    return false;
  }
  ZLOG_INFO("Qub version %s 7.0; has-unused-CKLN: %s", reply[kOk.size()] == kYes ? ">=" : "<",
            reply[kOk.size() + 2] == kYes ? "yes" : "no");
  if (unused_ckln != nullptr) *unused_ckln = reply[kOk.size() + 2] == kYes;
  return true;
}

bool CheckStatelessQubRebootFlags(LumCommands& lum, bool is_mp_host_profile_enabled, StatelessHost* out,
                                  ErrorSink& errors) {
  const std::optional<bool> install_status = IsSet(lum, "IsZemInstallStatusSet()", errors);
  if (!install_status) return false;
  if (*install_status) {
    const char* const local =
        "Found Network plugin flags ZEM_INSTALL_STATUS. NKLN host-switch is no longer supported.";
    const char* const for_manager =
        "Manager TransportNodeProfile configuration does not match Host Profile applied to Peakhall cluster "
        "this "
        "host is part of. Host Profile applied is not correct. Please update Manager TransportNodeProfile, "
        "Peakhall Cluster Host Profile and reboot host.";
    ZLOG_ERROR("42009", "%s, mpError = %s", local, for_manager);
    errors.Add(ErrorSink::kGeneral, for_manager);
    return false;
  }
  const std::optional<bool> opaque_switch_set = IsSet(lum, "IsZemInstallStatusOpaqueSwitchSet()", errors);
  if (!opaque_switch_set) return false;
  const std::optional<bool> config_required = IsSet(lum, "IsZemDvsConfigRequiredSet()", errors);
  if (!config_required) return false;
  if (!*opaque_switch_set) {
    if (!is_mp_host_profile_enabled) {
      ZLOG_INFO(
          "IsZemInstallStatusOpaqueSwitchSet() call indicated corvd has set ZEM_INSTALL_OPAQUE_SWITCH_STATUS "
          "flag for Stateless host and isMpHostProfileEnabled = false...Skip migration.");
    }
    out->migrate_nvs_knls = false;
    out->process_network_plugin = true;
  } else {
    out->migrate_nvs_knls = !is_mp_host_profile_enabled;
    out->process_network_plugin = *config_required;
  }
  ZLOG_INFO("[%s] migrateNvsKnls = %d, processStatelessQub70NetworkPlugin = %d,", __func__,
            out->migrate_nvs_knls, out->process_network_plugin);
  return true;
}

}  // namespace zem::zema
