#include "app/zema/ports/port_properties.h"

#include <algorithm>
#include <optional>

#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/port_walk.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/hostlib/switch_properties.h"
#include "app/zema/ports/port_location.h"
#include "app/zema/ports/vif_index.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr int kClearTries = 3;

std::string_view TextZ(const std::string& text) { return {text.c_str(), text.size() + 1}; }

template <class Record>
void Append(std::string* bytes, const Record& record) {
  bytes->append(reinterpret_cast<const char*>(&record), sizeof(record));
}

}  // namespace

PortProperties::Same PortProperties::Compare(const PortLocation& at, const char* property,
                                             const std::string& value) const {
  LibraryBuffer bytes;
  const uint32_t result = library_.PortDataGet(at.dvs, at.port, property, &bytes);
  if (result == 0) return bytes.text() == value ? Same::kYes : Same::kNo;
  if (result == kSwitchNotFound) {
    ZLOG_DEBUG("[PortOp] Property [%s] is not found on port [%s]", property, at.port.c_str());
  } else {
    ZLOG_ERROR("44207", "[PortOp] Failed to get property [%s] of port [%s], error code [%s]", property,
               at.port.c_str(), SwitchErrorText(result).c_str());
  }
  return Same::kUnknown;
}

Outcome PortProperties::SetPortExtraConfig(const std::string& dvs, const std::string& port,
                                           const std::string& key, const std::string& value) {
  if (key == port_props::kLogicalPortId) {
    std::string stored;
    if (library_.PortTextGet(dvs, port, key.c_str(), &stored) == 0) {
      if (stored == value) {
        ZLOG_INFO("Port %s already has the desired attribute configured", port.c_str());
        return Outcome::Done();
      }
      ZLOG_INFO("Port %s has stale logicalPort ID %s, removing stale value", port.c_str(), stored.c_str());
      std::string error;
      if (ClearPortExtraConfig(dvs, port, key, &error) < 0) return Outcome::Failed(std::move(error));
    }
  }
  std::optional<VifIndex::Writing> writing;
  if (key == port_props::kExternalId) writing.emplace(index_, dvs, port, value);
  const uint32_t result = library_.PortDataSet(dvs, port, key.c_str(), TextZ(value));
  if (result == 0 && writing) writing->Done();
  if (result == 0) return Outcome::Done();
  const std::string text = SwitchErrorText(result);
  ZLOG_ERROR("44205", "[PortOp] Port set for extraConfig property [%s] operation failed, error code [%s]",
             key.c_str(), text.c_str());
  return Outcome::Failed("Failed to set property " + key + " of port " + port + ": " + text);
}

int PortProperties::ClearPortExtraConfig(const std::string& dvs, const std::string& port,
                                         const std::string& key, std::string* error) {
  std::string text;
  for (int tries = 0; tries < kClearTries; ++tries) {
    const uint32_t result = library_.PortDataClear(dvs, port, key.c_str());
    if ((result == 0 || result == kSwitchNotFound) && key == port_props::kExternalId) {
      index_.Forget(dvs, port);
    }
    if (result == 0) {
      ZLOG_INFO("[PortOp] Cleared [%s] from port [%s] successfully", key.c_str(), port.c_str());
      return 0;
    }
    if (result == kSwitchNotFound) {
      ZLOG_INFO("[PortOp] Property [%s] is not found on the port [%s] to clear", key.c_str(), port.c_str());
      return 1;
    }
    text = SwitchErrorText(result);
    ZLOG_ERROR("44208", "[PortOp] Failed to clear config property [%s] on port [%s], error [%s]. Retrying",
               key.c_str(), port.c_str(), text.c_str());
  }
  ZLOG_ERROR("44208", "[PortOp] Failed [%d] times to clear config property [%s] on port [%s], error [%s].",
             kClearTries, key.c_str(), port.c_str(), text.c_str());
  if (error != nullptr) *error = "Failed to clear property " + key + " of port " + port + ": " + text;
  return -1;
}

uint32_t PortProperties::GetPortExtraConfig(const std::string& dvs, const std::string& port,
                                            const std::string& key, std::string* value) {
  return library_.PortTextGet(dvs, port, key.c_str(), value);
}

bool PortProperties::ClearPortOpaqueData(const std::string& dvs, const std::string& port) {
  bool cleared = true;
  for (const char* const key : port_props::kOpaqueData) {
    if (ClearPortExtraConfig(dvs, port, key) < 0) cleared = false;
  }
  return cleared;
}

bool PortProperties::ClearAllPortOpaqueData(const std::string& dvs) {
  bool cleared = true;
  PortWalk walk(library_, {dvs});
  walk.Visit([&](const std::string& id, const std::string& port) {
    if (!ClearPortOpaqueData(id, port)) cleared = false;
    return false;
  });
  return cleared && walk.failed() == 0;
}

Outcome PortProperties::SetVlanPolicy(const std::string& dvs, const std::string& port, int32_t vlan,
                                      const std::vector<std::pair<uint32_t, uint32_t>>& ranges) {
  ZLOG_INFO("[PortOp] Setting vlan policy");
  const bool trunk = vlan < 1 && !ranges.empty();
  DVSVlanPolicy policy{};
  policy.mode = trunk ? DVS_VLAN_TRUNK : DVS_VLAN_ACCESS;
  policy.vlan = trunk ? 0 : static_cast<uint32_t>(std::max(vlan, 0));
  policy.num_ranges = trunk ? static_cast<uint32_t>(ranges.size()) : 0;
  policy.size = static_cast<uint32_t>(sizeof(policy) + policy.num_ranges * sizeof(DVSVlanRange));
  ZLOG_INFO("[PortOp] Alloc size [%d]", static_cast<int>(policy.size));
  ZLOG_INFO("[PortOp] num rages [%d]", static_cast<int>(policy.num_ranges));
  std::string bytes;
  Append(&bytes, policy);
  for (uint32_t i = 0; i < policy.num_ranges; ++i) {
    const DVSVlanRange range{ranges[i].first, ranges[i].second};
    ZLOG_INFO("[PortOp] first [%d], second [%d]", static_cast<int>(range.first),
              static_cast<int>(range.last));
    Append(&bytes, range);
  }
  const uint32_t result = library_.PortDataSet(dvs, port, port_props::kVlan, bytes);
  if (result == 0) return Outcome::Done();
  const std::string text = SwitchErrorText(result);
  ZLOG_ERROR("44205", "[PortOp] Port set for vlan for port [%s] operation failed, error code [%s]",
             port.c_str(), text.c_str());
  return Outcome::Failed("Port set for vlan for port " + port + " failed: " + text);
}

Outcome PortProperties::SetUplinkTeamingName(const std::string& dvs, const std::string& port,
                                             const std::string& teaming) {
  return SetPortExtraConfig(dvs, port, port_props::kUplinkTeaming, teaming);
}

uint32_t PortProperties::GetHostConfigProp(const std::string& dvs, const std::string& property,
                                           std::string* value) {
  LibraryBuffer bytes;
  const uint32_t result = SwitchProperties(library_).HostPropGet(dvs, property.c_str(), &bytes);
  if (result == 0) *value = bytes.text();
  return result;
}

}  // namespace zem::zema
