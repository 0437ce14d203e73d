#include "app/zema/hostlib/config_ops_manager.h"

#include <boost/algorithm/string/join.hpp>

#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/hostlib/team_records.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kNotInitialized = "Config ops manager methods are not initialized.";

void LogTeaming(const char* what, const std::string& dvs, const SwitchTeaming& teaming) {
  ZLOG_INFO(
      "%s dvs [%s] Teaming=%s loadBalance: %u numActive: %zu numStandby: %zu rollingOrder: %u uplinks: %s",
      what, dvs.c_str(), teaming.name.c_str(), teaming.policy, teaming.active.size(), teaming.standby.size(),
      teaming.rolling_order,
      (boost::join(teaming.active, ",") + "|" + boost::join(teaming.standby, ",")).c_str());
}

}  // namespace

Outcome ConfigOpsManager::Usable() const {
  if (library_.loaded()) return Outcome::Done();
  ZLOG_ERROR("44201", "%s", kNotInitialized);
  return Outcome::Failed(kNotInitialized);
}

Outcome ConfigOpsManager::SetGlobal(const std::string& dvs, const char* property, std::string_view value) {
  const uint32_t result = properties_.GlobalPropSet(dvs, property, value, DVS_PROPERTY_FLAGS);
  if (result == 0) return Outcome::Done();
  const std::string text = SwitchErrorText(result);
  ZLOG_ERROR("ERR_GLOBAL_PROP_SET_FAILED", "Failed to configure [%s] on dvs [%s]: %s", property, dvs.c_str(),
             text.c_str());
  return Outcome::Failed(std::string("Failed to configure [") + property + "] on dvs [" + dvs + "]: " + text);
}

Outcome ConfigOpsManager::ClearGlobal(const std::string& dvs, const char* property) {
  const uint32_t result = properties_.GlobalPropClear(dvs, property);
  if (result == 0 || result == kSwitchNotFound) return Outcome::Done();
  const std::string text = SwitchErrorText(result);
  ZLOG_ERROR("ERR_GLOBAL_PROP_CLEAR_FAILED", "Failed to clear [%s] on dvs [%s]: %s", property, dvs.c_str(),
             text.c_str());
  return Outcome::Failed(std::string("Failed to clear [") + property + "] on dvs [" + dvs + "]: " + text);
}

Outcome ConfigOpsManager::ConfigureTeaming(const std::string& dvs, const SwitchTeaming& teaming) {
  if (Outcome usable = Usable(); !usable) return usable;
  LogTeaming("Configuring", dvs, teaming);
  const auto record = BuildTeamPolicy(teaming);
  if (!record) {
    ZLOG_ERROR("ERR_ALLOC_FAILED", "Failed to allocate VSTeamPolicy structure");
    return Outcome::Failed("Failed to allocate VSTeamPolicy structure");
  }
  return SetGlobal(dvs, port_props::kTeaming, *record);
}

Outcome ConfigOpsManager::ConfigureNamedTeaming(const std::string& dvs,
                                                const std::vector<SwitchTeaming>& teamings) {
  if (Outcome usable = Usable(); !usable) return usable;
  if (teamings.empty()) {
    ZLOG_INFO("Clearing Named Teaming policy on the Switch [%s]", dvs.c_str());
    return ClearNamedTeaming(dvs);
  }
  for (const SwitchTeaming& teaming : teamings) LogTeaming("Configuring named", dvs, teaming);
  const auto record = BuildTeamTable(kLogicalSwitchTeamings, teamings);
  if (!record) {
    ZLOG_ERROR("ERR_ALLOC_FAILED", "Failed to allocate LSTeamTable structure");
    return Outcome::Failed("Failed to allocate LSTeamTable structure");
  }
  return SetGlobal(dvs, port_props::kNamedTeaming, *record);
}

Outcome ConfigOpsManager::ClearTeaming(const std::string& dvs) {
  Outcome usable = Usable();
  return usable ? ClearGlobal(dvs, port_props::kTeaming) : usable;
}

Outcome ConfigOpsManager::ClearNamedTeaming(const std::string& dvs) {
  Outcome usable = Usable();
  return usable ? ClearGlobal(dvs, port_props::kNamedTeaming) : usable;
}

Outcome ConfigOpsManager::GetTeaming(const std::string& dvs, uint32_t* team_type,
                                     std::vector<std::string>* uplinks) {
  if (Outcome usable = Usable(); !usable) return usable;
  LibraryBuffer value;
  const uint32_t result = properties_.GlobalPropGet(dvs, port_props::kTeaming, &value);
  if (result == kSwitchNotFound) {  // not configured yet, or cleared
    *team_type = 0;
    uplinks->clear();
    return Outcome::Done();
  }
  const std::string reason = result == 0 ? "invalid size." : SwitchErrorText(result);
  const auto teaming = result == 0 ? ReadTeamPolicy(value.bytes()) : std::nullopt;
  if (!teaming) {
    ZLOG_ERROR("ERR_GLOBAL_PROP_GET_FAILED", "Failed to get teaming policy for dvs [%s]: %s", dvs.c_str(),
               reason.c_str());
    return Outcome::Failed("Failed to get teaming policy for dvs [" + dvs + "]: " + reason);
  }
  LogTeaming("Read", dvs, *teaming);
  *team_type = teaming->policy;
  *uplinks = teaming->active;
  uplinks->insert(uplinks->end(), teaming->standby.begin(), teaming->standby.end());
  return Outcome::Done();
}

Outcome ConfigOpsManager::GetLacpNames(const std::string& dvs, std::vector<std::string>* names) {
  if (Outcome usable = Usable(); !usable) return usable;
  LibraryBuffer value;
  const uint32_t result = properties_.GlobalPropGet(dvs, port_props::kLacp, &value);
  names->clear();
  if (result == kSwitchNotFound) return Outcome::Done();
  auto read = result == 0 ? ReadLacpNames(value.bytes()) : std::nullopt;
  if (read) {
    *names = std::move(*read);
    return Outcome::Done();
  }
  const std::string reason =
      result == 0 ? std::string(port_props::kLacp) + ": invalid size." : SwitchErrorText(result);
  std::string error = "Failed to get lacp policy for dvs [" + dvs + "]: " + reason;
  ZLOG_ERROR("ERR_GLOBAL_PROP_GET_FAILED", "%s", error.c_str());
  return Outcome::Failed(std::move(error));
}

uint32_t ConfigOpsManager::SetHostProp(const std::string& dvs, const std::string& property,
                                       const std::string& value) {
  return SetHostProp(dvs, property, std::string_view(value.c_str(), value.size() + 1), DVS_PROPERTY_FLAGS);
}

uint32_t ConfigOpsManager::SetHostProp(const std::string& dvs, const std::string& property,
                                       std::string_view bytes, uint32_t flags) {
  if (!Usable()) return kSwitchNotLoaded;
  // The health record publishes "down" again when one part rises while others are down: an unchanged value is
  // not written.
  LibraryBuffer before;
  if (properties_.HostPropGet(dvs, property.c_str(), &before) == 0 && before.bytes() == bytes) return 0;
  const uint32_t result = properties_.HostPropSet(dvs, property.c_str(), bytes, flags);
  if (result != 0) {
    ZLOG_ERROR("ERR_PORTSET_FAILED", "Failed to set [%s] on dvs [%s]: %s", property.c_str(), dvs.c_str(),
               SwitchErrorText(result).c_str());
  }
  return result;
}

uint32_t ConfigOpsManager::ClearHostProp(const std::string& dvs, const std::string& property) {
  if (!Usable()) return kSwitchNotLoaded;
  // Mostly at start there is nothing to clear: then the switch is not written to.
  LibraryBuffer value;
  if (properties_.HostPropGet(dvs, property.c_str(), &value) == kSwitchNotFound) return kSwitchNotFound;
  const uint32_t result = properties_.HostPropClear(dvs, property.c_str());
  if (result != 0 && result != kSwitchNotFound) {
    ZLOG_ERROR("ERR_PORTSET_FAILED", "Failed to clear [%s] on dvs [%s]: %s", property.c_str(), dvs.c_str(),
               SwitchErrorText(result).c_str());
  }
  return result;
}

std::optional<std::string> ConfigOpsManager::GetHostProp(const std::string& dvs,
                                                         const std::string& property) {
  if (!Usable()) return std::nullopt;
  LibraryBuffer value;
  const uint32_t result = properties_.HostPropGet(dvs, property.c_str(), &value);
  if (result == 0) return std::string(value.text());
  if (result != kSwitchNotFound) {
    ZLOG_WARN("Failed to get [%s] of dvs [%s]: %s", property.c_str(), dvs.c_str(),
              SwitchErrorText(result).c_str());
  }
  return std::nullopt;
}

}  // namespace zem::zema
