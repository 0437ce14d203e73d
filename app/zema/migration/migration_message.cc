#include "app/zema/migration/migration_message.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "app/zema/proxy/error_sink.h"
#include "app/zema/proxy/switch_id.h"
#include "app/zema/proxy/switch_record.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kSecurityOnly = "SECURITY_ONLY";
constexpr std::string_view kDistributedPortGroup = "dvportgroup-";

bool Refuse(ErrorSink& errors, const std::string& text) {
  ZLOG_ERROR("42015", "[%s] %s", "ValidateKnlMigrateMsgAndSetVtepVlan", text.c_str());
  errors.Add(ErrorSink::kGeneral, text);
  return false;
}

bool Convert(std::string* id, ErrorSink& errors) {
  if (ConvertDvsUuidToQubFormat(id)) return true;
  errors.Add(ErrorSink::kGeneral, "Malformed host_switch ID: [" + *id + "]");
  return false;
}

bool ConvertIds(HostConfigMsg* config, ErrorSink& errors) {
  for (HostSwitchMsg& host_switch : *config->mutable_host_switches()) {
    if (!Convert(host_switch.mutable_id(), errors)) return false;
  }
  if (!config->has_qub_if_migration()) return true;
  QubMgmtIfMigrationMsg& migration = *config->mutable_qub_if_migration();
  for (QubMgmtIfToLogicSwitchMsg& entry : *migration.mutable_to_lswitches()) {
    if (!Convert(entry.mutable_host_switch_id(), errors)) return false;
  }
  for (QubMgmtIfToPlnMsg& entry : *migration.mutable_to_vsw_or_psw()) {
    if (!Convert(entry.mutable_host_switch_id(), errors)) return false;
  }
  for (QubKnlPingIpMsg& ping : *migration.mutable_knl_ping_ip()) {
    if (!Convert(ping.mutable_host_switch_id(), errors)) return false;
  }
  return true;
}

std::optional<uint32_t> LabelIn(const std::string& text) {
  uint32_t label = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), label);
  if (error != std::errc() || text.empty() || end != text.data() + text.size()) return std::nullopt;
  return label;
}

bool ValidateVtep(const HostSwitchMsg& host_switch, QubMgmtIfToLogicSwitchMsg* entry, ErrorSink& errors) {
  if (!host_switch.overlay()) {
    return Refuse(errors,
                  "Cannot migrate VTEP " + entry->device() + " into non-overlay NKLN " + host_switch.name());
  }
  const auto& vteps = host_switch.vteps();
  if (std::none_of(vteps.begin(), vteps.end(),
                   [&](const VtepMsg& vtep) { return vtep.device_name() == entry->device(); })) {
    ZLOG_WARN("[%s] VTEP %s is not in the vteps spec of NKLN [%s]; it will be deleted after migration",
              __func__, entry->device().c_str(), host_switch.id().c_str());
  }
  if (host_switch.has_transport_vlan()) entry->set_vlan(host_switch.transport_vlan());
  if (!entry->has_label()) {
    if (const auto label = LabelIn(entry->lswitch_id())) {
      entry->set_label(*label);
    } else {
      ZLOG_INFO("[%s] VTEP %s label is not set inside lswitch_id field", __func__, entry->device().c_str());
    }
  }
  return true;
}

bool Populate(HostConfigMsg* config, KnlMigrationMap* map, ErrorSink& errors) {
  QubMgmtIfMigrationMsg& migration = *config->mutable_qub_if_migration();
  for (QubMgmtIfToLogicSwitchMsg& entry : *migration.mutable_to_lswitches()) {
    (*map)[entry.host_switch_id()].to_logical_switch.push_back(&entry);
  }
  for (QubMgmtIfToPlnMsg& entry : *migration.mutable_to_vsw_or_psw()) {
    if (entry.device().empty() && entry.port_group().empty()) {
      const std::string text =
          "Invalid qub_if_migration message: DVS/PLN name is not found in port_group field for migrating "
          "only PNICs out of host-switch " +
          entry.host_switch_id();
      ZLOG_ERROR("42015", "[%s] %s.", __func__, text.c_str());
      errors.Add(ErrorSink::kGeneral, text);
      return false;
    }
    KnlMigration& record = (*map)[entry.host_switch_id()];
    if (entry.device().empty()) {
      record.target = entry.port_group();
    }
    record.to_pln.push_back(&entry);
  }
  for (const QubKnlPingIpMsg& ping : migration.knl_ping_ip()) {
    const auto record = map->find(ping.host_switch_id());
    if (record != map->end()) record->second.ping_ip = ping.ping_ip();
  }
  return true;
}

}  // namespace

bool IsPnicsAlone(const QubMgmtIfToLogicSwitchMsg& entry) {
  return entry.device().empty() && entry.lswitch_id().empty() && entry.logical_port_id().empty() &&
         entry.vif_id().empty() && !entry.is_vtep();
}

HostSwitchMsg* FindHostSwitch(HostConfigMsg* config, const std::string& id) {
  for (HostSwitchMsg& host_switch : *config->mutable_host_switches()) {
    if (host_switch.id() == id) return &host_switch;
  }
  return nullptr;
}

bool ValidateKnlMigrateMsgAndSetVtepVlan(HostConfigMsg* config, ErrorSink& errors) {
  if (!config->has_qub_if_migration()) return true;
  QubMgmtIfMigrationMsg& migration = *config->mutable_qub_if_migration();
  if (migration.to_lswitches_size() != 0 && migration.to_vsw_or_psw_size() != 0) {
    ZLOG_ERROR("42015",
               "[%s] Invalid qub_if_migration msg. Both to_lswitches and to_vsw_or_psw are present. \n",
               __func__);
    errors.Add(ErrorSink::kGeneral,
               "Invalid qub_if_migration msg. Both to_lswitches and to_vsw_or_psw are present.");
    return false;
  }
  for (QubMgmtIfToLogicSwitchMsg& entry : *migration.mutable_to_lswitches()) {
    const HostSwitchMsg* host_switch = FindHostSwitch(config, entry.host_switch_id());
    if (host_switch == nullptr) {
      return Refuse(errors, "Invalid qub_if_migration msg: host_switch_id " + entry.host_switch_id() +
                                " not found in HostConfigMsg.host_switches");
    }
    if (entry.is_vtep()) {
      if (!ValidateVtep(*host_switch, &entry, errors)) return false;
    } else if (!IsPnicsAlone(entry) && SwitchKind(*host_switch) == "KLN") {
      return Refuse(errors, "Cannot migrate non-VTEP " + entry.device() + " into KLN " + host_switch->name());
    }
  }
  return true;
}

bool ConvertDvsUuidsAndPopulateKnlMigrationMap(HostConfigMsg* config, KnlMigrationMap* map,
                                               ErrorSink& errors) {
  map->clear();
  if (!ConvertIds(config, errors) || !ValidateKnlMigrateMsgAndSetVtepVlan(config, errors)) return false;
  return !config->has_qub_if_migration() || Populate(config, map, errors);
}

bool IsSecurityOnlyMigration(const HostConfigMsg& config) {
  if (!config.has_qub_if_migration()) return true;
  const QubMgmtIfMigrationMsg& migration = config.qub_if_migration();
  return std::any_of(migration.to_lswitches().begin(), migration.to_lswitches().end(),
                     [](const QubMgmtIfToLogicSwitchMsg& entry) {
                       return entry.init_state() == kSecurityOnly ||
                              entry.port_group().starts_with(kDistributedPortGroup);
                     }) ||
         std::any_of(migration.to_vsw_or_psw().begin(), migration.to_vsw_or_psw().end(),
                     [](const QubMgmtIfToPlnMsg& entry) {
                       return entry.port_group().starts_with(kDistributedPortGroup);
                     });
}

}  // namespace zem::zema
