#include "app/zema/hostlib/vtep_ha_profile.h"

#include <cerrno>

#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

struct Reason {
  int code;
  const char* text;
};
constexpr Reason kReasons[] = {
    {ENOENT, "KLN not found."},
    {EFAULT, "Given time range is not proper."},
    {EINVAL, "VTEP not in proper state to perform requested operation."},
    {ENAMETOOLONG, "VTEP not found under KLN."},
    {ENOSYS,
     "None or only one healthy VTEP exists. Cannot perform requested operation in current system state."},
    {kNoEndpointLibrary, "The endpoint library is not on this host."},
    {ENOBUFS, "Internal error occured while performing requested operation."},
};

// In the order in which the library is called.
struct Step {
  const char* prefix;
  int (*set)(TepHaLibrary& library, const std::string& dvs, const VtepHAProfileMsg& profile);
};
constexpr Step kSteps[] = {
    {"Setting TEPHA failed with code ",
     [](TepHaLibrary& library, const std::string& dvs, const VtepHAProfileMsg& profile) {
       return library.SetTEPHA(dvs, profile.enabled());
     }},
    {"Setting autoRecovery for TEPHA failed with code ",
     [](TepHaLibrary& library, const std::string& dvs, const VtepHAProfileMsg& profile) {
       return library.SetTEPHAAutoRecover(dvs, profile.auto_recovery());
     }},
    {"Setting AutoRecoverStartTime for TEPHA failed with code ",
     [](TepHaLibrary& library, const std::string& dvs, const VtepHAProfileMsg& profile) {
       return library.SetTEPHAAutoRecoverStartTime(dvs, profile.start_time());
     }},
    {"Setting AutoRecoverBackoffTime for TEPHA failed with code ",
     [](TepHaLibrary& library, const std::string& dvs, const VtepHAProfileMsg& profile) {
       return library.SetTEPHAAutoRecoverBackoff(dvs, profile.backoff_time());
     }},
    {"Setting Timeout for TEPHA failed with code ",
     [](TepHaLibrary& library, const std::string& dvs, const VtepHAProfileMsg& profile) {
       return library.SetTEPHATimeout(dvs, profile.timeout());
     }},
};

bool Apply(TepHaLibrary& library, const std::string& dvs, const VtepHAProfileMsg& profile,
           std::string* error) {
  for (const Step& step : kSteps) {
    const int code = step.set(library, dvs, profile);
    if (code == 0) continue;
    *error = step.prefix + std::to_string(code) + " : " + TepHaErrorText(code) + ", on dvs " + dvs;
    return false;
  }
  return true;
}

}  // namespace

const char* TepHaErrorText(int code) {
  for (const Reason& reason : kReasons) {
    if (reason.code == code) return reason.text;
  }
  return "Generic error occured.";
}

bool ProcessVtepHAProfile(TepHaLibrary& library, const HostSwitchMsg& host_switch, std::string* error) {
  if (!host_switch.profiles().has_vtep_ha_profile()) return true;
  const VtepHAProfileMsg& profile = host_switch.profiles().vtep_ha_profile();
  ZLOG_INFO("[%s] vtepHAProfile Params [%s] \n", __func__, profile.ShortDebugString().c_str());
  return Apply(library, host_switch.id(), profile, error);
}

void ProcessVtepHAProfileAndIgnoreErrors(TepHaLibrary& library, const HostConfigMsg& config) {
  for (const HostSwitchMsg& host_switch : config.host_switches()) {
    if (!host_switch.has_name() || !host_switch.profiles().has_vtep_ha_profile()) continue;
    const VtepHAProfileMsg& profile = host_switch.profiles().vtep_ha_profile();
    ZLOG_INFO("[%s] vtepHAProfile Params for HS %s [%s] \n", __func__, host_switch.name().c_str(),
              profile.ShortDebugString().c_str());
    std::string error;
    if (!Apply(library, host_switch.id(), profile, &error)) {
      ZLOG_TO(kLog, kLogError, "[%s] Error while applying VTEP HA Profile: %s", __func__, error.c_str());
    }
  }
}

}  // namespace zem::zema
