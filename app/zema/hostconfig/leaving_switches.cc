#include "app/zema/hostconfig/leaving_switches.h"

#include <algorithm>
#include <iterator>
#include <set>

#include "app/zema/hostconfig/host_config_context.h"
#include "app/zema/hostconfig/port_opaque_data.h"
#include "app/zema/hostlib/config_ops_manager.h"
#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/hostswitch/router_ports.h"
#include "app/zema/proxy/error_sink.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/proxy/lum_reply.h"
#include "app/zema/state/realization_options.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kRemovalRevision = "-1";
constexpr int kRouterUnloadLimit = 30;  // seconds

std::set<std::string> IdsOf(const LeavingSwitches::Config& config) {
  std::set<std::string> ids;
  for (const auto& host_switch : config.host_switches()) ids.insert(host_switch.id());
  return ids;
}

// The switches that leave, in order of their ids.
std::vector<std::string> Leaving(const LeavingSwitches::Config& config,
                                 const std::vector<HostDvs>& existing) {
  std::set<std::string> there;
  for (const HostDvs& dvs : existing) there.insert(dvs.id);
  const std::set<std::string> wanted = IdsOf(config);
  std::vector<std::string> leaving;
  std::set_difference(there.begin(), there.end(), wanted.begin(), wanted.end(), std::back_inserter(leaving));
  return leaving;
}

std::string JoinIds(const std::vector<HostDvs>& switches) {
  std::string ids;
  for (const HostDvs& dvs : switches) ids += (ids.empty() ? "" : ",") + dvs.id;
  return ids;
}

}  // namespace

LeavingSwitches::RouterMacs LeavingSwitches::RouterMacsOf(const Config& config) {
  RouterMacs macs;
  for (const auto& host_switch : config.host_switches()) macs[host_switch.id()] = host_switch.vdr_mac();
  return macs;
}

void LeavingSwitches::ClearTeaming(const Config& config, const std::vector<HostDvs>& existing) {
  std::string failed;
  for (const std::string& id : Leaving(config, existing)) {
    ZLOG_INFO("Invoking GlobalPropClear with dvsId %s, to clear teaming", id.c_str());
    failed += context_.switches.ClearTeaming(id).error();
  }
  if (!failed.empty()) errors_.Add(ErrorSink::kSwitchStatus, failed);
}

bool LeavingSwitches::DisconnectVdrPortsAndResetHostSwitches(const Config& config, bool reset, bool upgrade,
                                                             const std::vector<HostDvs>& existing,
                                                             const RouterMacs& before, bool* hot_swap) {
  std::string list;
  for (const auto& host_switch : config.host_switches()) {
    list += host_switch.id() + "=" +
            (host_switch.has_transport_vlan() ? std::to_string(host_switch.transport_vlan()) : "") + ",";
  }
  const RouterMacs after = RouterMacsOf(config);
  std::string names = JoinIds(existing);
  ZLOG_INFO("preDvsList: %s", names.c_str());
  names += std::string("|") + (reset ? "reset=True" : "reset=False") + "|" +
           context_.options.Snapshot().knl_types_to_check_on_removing_pnic;
  DisconnectVdrPorts(before, after);
  UnsetSpf(config, existing);
  UnsetSecurity(config, existing);
  const bool removal = reset || config.revision() == kRemovalRevision;
  names += std::string("|") + (removal ? "deleteTn=True" : "deleteTn=False");
  if (!ApplyDvsList(list, names, hot_swap)) return true;
  return !upgrade && !UnloadRouters(after);
}

void LeavingSwitches::DisconnectVdrPorts(const RouterMacs& before, const RouterMacs& after) {
  std::vector<std::string> failed;
  if (context_.routers.DisconnectVdrPorts(before, after, &failed)) return;
  for (const std::string& id : failed) {
    errors_.Add(ErrorSink::kRouterPort, "vdr port disconnect for host switch [" + id + "] failed");
  }
}

void LeavingSwitches::UnsetSpf(const Config& config, const std::vector<HostDvs>& existing) {
  for (const std::string& id : Leaving(config, existing)) {
    const uint32_t result = context_.switches.ClearHostProp(id, port_props::kSpfEnabled);
    if (result == 0 || result == kSwitchNotFound) {
      ZLOG_INFO("Unset switch [%s] Port setting %s", id.c_str(), port_props::kSpfEnabled);
    } else {
      ZLOG_ERROR("42009", "[%s] Failed to unset spf property on switch [%s], ret = %d", __func__, id.c_str(),
                 static_cast<int>(result));
    }
  }
}

void LeavingSwitches::UnsetSecurity(const Config& config, const std::vector<HostDvs>& existing) {
  std::string reply;
  context_.lum.InvokeCommand("GetSecurityEnabledDvsIds()", "", &reply);
  const auto enabled = ParseOkList(reply, false);
  if (!enabled) {
    ZLOG_ERROR("42009", "GetSecurityEnabledDvsIds reply %s", reply.c_str());
    return;
  }
  // A switch that stays keeps the property even when its security is withdrawn.  The property is written only
  // at the initial revision and would not be restored, and the data that ties its ports to their VIFs is not
  // used for security alone.
  for (const std::string& id : Leaving(config, existing)) {
    if (std::find(enabled->begin(), enabled->end(), id) == enabled->end()) continue;
    ClearOpaqueDataOnPorts(context_, id);
    context_.switches.ClearHostProp(id, port_props::kKlnSecurityEnabled);
  }
}

bool LeavingSwitches::ApplyDvsList(const std::string& list, const std::string& names, bool* hot_swap) {
  std::string reply;
  context_.lum.InvokeCommand("applyDvsList(" + list + "|" + names + ")", "", &reply);
  const size_t bar = reply.find('|');
  std::string text = bar == std::string::npos ? reply : reply.substr(bar + 1);
  if (bar == 1 && reply[0] == '1') *hot_swap = true;
  if (bar == 1 && text == "ok") {
    ZLOG_INFO("[%s] ApplyDvsList(%s|%s) completed", __func__, list.c_str(), names.c_str());
    return true;
  }
  ZLOG_ERROR("42009", "[%s] ApplyDvsList(%s|%s) failed: %s", __func__, list.c_str(), names.c_str(),
             text.c_str());
  errors_.Add(ErrorSink::kGeneral, "host switch remove operation failed: [" + text + "]");
  return false;
}

// A router whose MAC address changes has to be removed completely before it is connected again.
bool LeavingSwitches::UnloadRouters(const RouterMacs& after) {
  std::vector<std::string> changing;
  std::string error;
  if (!context_.routers.GetDvsIdsChangingVdrMac(after, &changing, &error)) {
    errors_.Add(ErrorSink::kGeneral, error);
    return false;
  }
  if (changing.empty()) return true;
  std::string ids;
  for (const std::string& id : changing) ids += (ids.empty() ? "" : ",") + id;
  ZLOG_INFO("DVS that will change VDR MAC: [%s]", ids.c_str());
  std::string reply;
  if (context_.lum.InvokeCommand("unsetVdrDvptrackingInDvses(" + ids + ")", "ok", &reply) !=
      LumCommands::kSucceeded) {
    ZLOG_ERROR("42009", "[%s] UnsetVdrDvptrackingInDvses(%s) failed: %s", __func__, ids.c_str(),
               reply.c_str());
    errors_.Add(ErrorSink::kGeneral, "UnsetVdrDvptrackingInDvses failed: [" + reply + "]");
    return false;
  }
  const Outcome unloaded = context_.routers.WaitTillVdrUnloadDone(kRouterUnloadLimit);
  if (!unloaded) errors_.Add(ErrorSink::kGeneral, unloaded.error());
  return unloaded.done();
}

}  // namespace zem::zema
