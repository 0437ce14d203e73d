#include "app/zema/ports/transport_zones.h"

#include <set>

#include "app/zema/ports/vif_index.h"
#include "app/zema/proxy/lum_commands.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

}  // namespace

bool TransportZones::CacheTzToDvsMapping() {
  std::string reply;
  size_t skipped = 0;
  const int result = lum_.InvokeCommand("GetTzToDvsMapping()", "", &reply);
  const auto list = result == LumCommands::kSucceeded ? ParseTzToDvs(reply, &skipped) : std::nullopt;
  if (!list) {
    ZLOG_ERROR("44205", "[PortOp] GetTzToDvsMapping reply: [%s]", reply.c_str());
    zones_unanswered_ = true;
    return false;
  }
  if (skipped != 0) ZLOG_WARN("[PortOp] GetTzToDvsMapping: %zu entries were skipped", skipped);
  SetTzToDvsCache(*list);
  return true;
}

void TransportZones::SetTzToDvsCache(const std::vector<TzDvs>& list) {
  std::map<std::string, HostSwitchInfo> map;
  for (const TzDvs& entry : list) map[entry.zone] = {entry.dvs, entry.kind};
  const std::vector<std::string> before = Switches();
  tz_to_dvs_.Replace(std::move(map));
  zones_unanswered_ = false;
  if (Switches() != before) index_.Invalidate();
}

// When the host did not answer the last query it may know zones that are missing here, so it is asked again.
std::optional<HostSwitchInfo> TransportZones::FindZone(const std::string& zone) {
  for (;;) {
    const auto map = tz_to_dvs_.Get();
    if (const auto found = map->find(zone); found != map->end()) return found->second;
    if (!zones_unanswered_ || !CacheTzToDvsMapping()) return std::nullopt;
  }
}

std::string TransportZones::GetDvsIdForTz(const std::string& zone) {
  if (zone.empty()) {
    ZLOG_INFO("[PortOp] Ignoring to lookup dvsId for a null TZ id");
    return {};
  }
  if (auto found = FindZone(zone)) return std::move(found->dvs);
  ZLOG_ERROR("44205", "[PortOp] dvs id for tzId [%s] was not found", zone.c_str());
  return {};
}

HostSwitchInfo TransportZones::GetHostSwitchInfoForTz(const std::string& zone) {
  if (auto found = FindZone(zone)) return *std::move(found);
  ZLOG_INFO("[PortOp] Host switch info with uuid for tzId [%s] was not found", zone.c_str());
  return {};
}

std::vector<std::string> TransportZones::Switches() const {
  const auto map = tz_to_dvs_.Get();
  std::set<std::string> ids;
  for (const auto& [zone, info] : *map) ids.insert(info.dvs);
  return {ids.begin(), ids.end()};
}

}  // namespace zem::zema
