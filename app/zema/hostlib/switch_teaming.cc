#include "app/zema/hostlib/switch_teaming.h"

#include <boost/algorithm/string/join.hpp>
#include <utility>

#include "framework/log/log.h"
#include "proto/switching/host_switch.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

SwitchTeaming FromProfile(std::string name, const UplinkProfileMsg& profile) {
  SwitchTeaming teaming;
  teaming.name = std::move(name);
  teaming.policy = static_cast<uint32_t>(profile.teaming_policy());
  for (const UplinkMsg& uplink : profile.active_uplink()) teaming.active.push_back(uplink.name());
  for (const UplinkMsg& uplink : profile.standby_uplink()) teaming.standby.push_back(uplink.name());
  teaming.rolling_order = profile.rolling_order();
  return teaming;
}

}  // namespace

SwitchTeaming TeamingOf(const HostSwitchMsg& host_switch) {
  std::vector<std::string> uplinks;
  for (const PhysicalNicMsg& pnic : host_switch.pnic()) {
    uplinks.push_back(pnic.device_name() + "~" + pnic.uplink_name());
  }
  ZLOG_INFO("ZEM-KLN uplink map dump: %s", boost::join(uplinks, ",").c_str());
  SwitchTeaming teaming = FromProfile({}, host_switch.profiles().uplink_profile());
  ZLOG_INFO("Invoking ConfigureVSTeaming() for switch %s: active %s, standby %s, rollingorder %d",
            host_switch.id().c_str(), boost::join(teaming.active, ",").c_str(),
            boost::join(teaming.standby, ",").c_str(), static_cast<int>(teaming.rolling_order));
  return teaming;
}

std::vector<SwitchTeaming> NamedTeamingsOf(const HostSwitchMsg& host_switch) {
  std::vector<SwitchTeaming> teamings;
  for (const NamedUplinkProfileMsg& named : host_switch.profiles().named_uplink_profile()) {
    teamings.push_back(FromProfile(named.name(), named.uplink_profile()));
  }
  return teamings;
}

}  // namespace zem::zema
