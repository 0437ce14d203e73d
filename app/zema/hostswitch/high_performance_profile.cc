#include "app/zema/hostswitch/high_performance_profile.h"

#include "framework/log/log.h"
#include "framework/process/command.h"
#include "proto/switching/host_switch.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kScript = "python3 /usr/lib/orlane/high-performance-dp/hp_dp_script.py -d ";

// The script reconfigures a datapath, which takes time.
constexpr Duration kScriptLimit = std::chrono::minutes(10);

// The script's exit codes.
constexpr int kApplied = 0;
constexpr int kNotInMaintenanceMode = 1;

struct Reason {
  int code;
  const char* before;
  /// The text that follows the script's output; null when the output is not reported.
  const char* after;
};
constexpr Reason kReasons[] = {
    {2,
     ".Reason : auto_config value 1 is not supported for QUBi version < 7.0.3 . Please provide correct "
     "configuration and retry.",
     nullptr},
    {100, ".Reason : High performance configuration parameters ",
     " have incorrect key/value. Please provide correct configuration parameters and try again."},
    {101,
     ".Reason : Failed to apply high performance configuration parameters for high performance configuration "
     "type : ",
     ""},
    {102,
     ".Reason :  Error while reading system configurations while applying high performance configuration "
     "parameters.",
     nullptr},
};

std::string Explain(int code, const std::string& name, const std::string& reply) {
  std::string text = "Setting high performance parameters on datapath failed with error code " +
                     std::to_string(code) + " for dvs " + name;
  for (const Reason& reason : kReasons) {
    if (reason.code != code) continue;
    return text + reason.before + (reason.after == nullptr ? "" : reply + reason.after);
  }
  return text + ".Reason :  Failure received while configuring high configuration parameters on datapath.";
}

// A plain name appears in the command unchanged; a name that the shell would interpret is put in quotes.
std::string Quoted(const std::string& name) {
  constexpr const char* kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.:/@%+=,-";
  if (!name.empty() && name.find_first_not_of(kPlain) == std::string::npos) return name;
  std::string quoted = "'";
  for (const char c : name) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

int RunShell(const std::string& command, std::string* output) {
  std::string error;
  const int code = Tarvik::Util::ReadCmdOutput(command, output, &error, {kScriptLimit});
  if (code < 0) *output += error;
  return code;
}

}  // namespace

HighPerformanceSettings::HighPerformanceSettings() : run(RunShell) {}

bool HighPerformanceProfile::ProcessHighPerformanceProfile(const HostSwitchMsg& host_switch,
                                                           std::vector<std::string>* errors, bool* pending) {
  if (!host_switch.profiles().has_high_performance_profile()) return true;
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  const std::string& dvs = host_switch.id();
  ZLOG_INFO("[%s] HighPerformanceProfileMsg Params [%s] \n", __func__,
            host_switch.profiles().high_performance_profile().ShortDebugString().c_str());
  const std::string command = kScript + Quoted(host_switch.name()) + " 2>&1";
  ZLOG_INFO("[%s] executing [%s] ...\n", __func__, command.c_str());
  std::string reply;
  const int code = settings_.run(command, &reply);
  ZLOG_INFO("ExecuteCmd(%s) result: ret:[%d], reply:[%s]", command.c_str(), code, reply.c_str());
  if (code == kApplied) {
    if (!settings_.has_host_prop(dvs, kPendingUserActions)) return true;
    if (const uint32_t result = settings_.clear_host_prop(dvs, kPendingUserActions); result != 0) {
      ZLOG_ERROR("42009", "[%s] Failed to unset pending actions property on switch [%s], ret = %d", __func__,
                 dvs.c_str(), static_cast<int>(result));
    }
    return true;
  }
  if (code == kNotInMaintenanceMode) {
    ZLOG_INFO("High performance configuration is not applied as host is not in maintenance mode.");
    *pending = true;
    if (settings_.set_host_prop(dvs, kPendingUserActions, kMaintenanceModeAction) == 0) return true;
    ZLOG_ERROR("44305", "Unable to set [%s] host property on dvs [%s]", kPendingUserActions, dvs.c_str());
    errors->push_back(std::string("Failed to set pending actions property [") + kPendingUserActions +
                      "] on dvs. Please resync.");
    return false;
  }
  errors->push_back(Explain(code, host_switch.name(), reply));
  return false;
}

}  // namespace zem::zema
