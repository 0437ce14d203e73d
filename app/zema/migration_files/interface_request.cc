#include "app/zema/migration_files/interface_request.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "app/zema/migration/migration_file.h"
#include "app/zema/proxy/switch_id.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "PopulateKnlMigrationMsgFromFile";

constexpr uint32_t kToBeMigrated = 3;  // state of an endpoint

bool Refuse(std::string* error, std::string text) {
  *error = std::move(text);
  return false;
}

// An id may be in the manager's form or in the host's.
std::string HostForm(std::string id) { return ConvertDvsUuidToQubFormat(&id) ? id : std::string(); }

HostSwitchMsg* Find(const MigrationHostSwitch& wanted, HostConfigMsg* config) {
  const std::string host_form = HostForm(wanted.id);
  for (HostSwitchMsg& candidate : *config->mutable_host_switches()) {
    if (wanted.id.empty()
            ? candidate.name() == wanted.name
            : candidate.id() == wanted.id || (!host_form.empty() && HostForm(candidate.id()) == host_form)) {
      return &candidate;
    }
  }
  return nullptr;
}

std::string MacText(const MigrationVnic& vnic) {
  if (!vnic.mac) return {};
  std::string text;
  for (int shift = 40; shift >= 0; shift -= 8) {
    char pair[4];
    std::snprintf(pair, sizeof(pair), "%s%02x", text.empty() ? "" : ":",
                  static_cast<unsigned>(*vnic.mac >> shift & 0xff));
    text += pair;
  }
  return text;
}

void FillVtep(const MigrationVnic& vnic, VtepMsg* vtep) {
  vtep->Clear();
  vtep->set_device_name(vnic.vnic_id);
  vtep->set_state(kToBeMigrated);
  if (vnic.mac) vtep->mutable_mac()->set_value(*vnic.mac);
  const std::string& ip = vnic.ip.empty() ? vnic.ping_ip : vnic.ip;
  if (ip.empty()) return;
  if (ip.find(':') == std::string::npos) {
    vtep->set_ipv4_address(ip);
  } else {
    vtep->set_ipv6_address(ip);
  }
}

// Updates the endpoint that the file names, or replaces another endpoint with it.
void PutVtep(const MigrationHostSwitch& wanted, const MigrationVnic& vnic, HostSwitchMsg* host_switch) {
  auto& vteps = *host_switch->mutable_vteps();
  const auto found = std::find_if(vteps.begin(), vteps.end(),
                                  [&](const VtepMsg& vtep) { return vtep.device_name() == vnic.vnic_id; });
  if (found != vteps.end()) {
    ZLOG_INFO("[%s] found VTEP [%s]", kTag, vnic.vnic_id.c_str());
    found->set_state(kToBeMigrated);
    return;
  }
  const std::string& ip = vnic.ip.empty() ? vnic.ping_ip : vnic.ip;
  // Prefers an endpoint without a device, then one that the file does not name.
  auto replaced = std::find_if(vteps.begin(), vteps.end(),
                               [](const VtepMsg& vtep) { return vtep.device_name().empty(); });
  if (replaced == vteps.end()) {
    replaced = std::find_if(vteps.begin(), vteps.end(), [&](const VtepMsg& vtep) {
      return std::none_of(wanted.vnics.begin(), wanted.vnics.end(), [&](const MigrationVnic& other) {
        return other.is_vtep && other.vnic_id == vtep.device_name();
      });
    });
  }
  if (replaced != vteps.end()) {
    ZLOG_INFO("[%s] replace VTEP [%s] with {%s, ip=[%s], mac=[%s]}", kTag, replaced->device_name().c_str(),
              vnic.vnic_id.c_str(), ip.c_str(), MacText(vnic).c_str());
    FillVtep(vnic, &*replaced);
    return;
  }
  ZLOG_INFO("[%s] VTEP {%s, ip=[%s], mac=[%s]} will be migrated but next host-config from MP may delete it",
            kTag, vnic.vnic_id.c_str(), ip.c_str(), MacText(vnic).c_str());
  FillVtep(vnic, vteps.Add());
}

void FillMoveIn(const MigrationVnic& vnic, QubMgmtIfToLogicSwitchMsg* entry) {
  entry->set_device(vnic.vnic_id);
  entry->set_is_vtep(vnic.is_vtep);
  if (vnic.vtep_label) entry->set_label(*vnic.vtep_label);
  if (vnic.is_vtep) {
    ZLOG_INFO("[%s] VTEP %s label %d", kTag, vnic.vnic_id.c_str(),
              static_cast<int>(vnic.vtep_label.value_or(0)));
  } else {
    ZLOG_INFO("[%s] vif [%s]", kTag, vnic.vif_id.c_str());
  }
  using Entry = QubMgmtIfToLogicSwitchMsg;
  const std::pair<const std::string*, void (*)(Entry*, const std::string&)> texts[] = {
      {&vnic.logical_switch_id, [](Entry* e, const std::string& text) { e->set_lswitch_id(text); }},
      {&vnic.logical_port_id, [](Entry* e, const std::string& text) { e->set_logical_port_id(text); }},
      {&vnic.vif_id, [](Entry* e, const std::string& text) { e->set_vif_id(text); }},
      {&vnic.transport_zone_id, [](Entry* e, const std::string& text) { e->set_transport_zone_id(text); }},
      {&vnic.group_id, [](Entry* e, const std::string& text) { e->set_port_group(text); }},
      {&vnic.uplink_teaming_name,
       [](Entry* e, const std::string& text) {
         ZLOG_INFO("[%s] uplink_teaming_name [%s]", kTag, text.c_str());
         e->set_uplink_teaming_name(text);
       }},
      {&vnic.init_state,
       [](Entry* e, const std::string& text) {
         ZLOG_INFO("[%s] init_state [%s]", kTag, text.c_str());
         e->set_init_state(text);
       }},
  };
  for (const auto& [text, set] : texts) {
    if (!text->empty()) set(entry, *text);
  }
  if (vnic.vlan) entry->set_vlan(*vnic.vlan);
  for (const auto& [start, end] : vnic.vlan_trunk_ranges) {
    ZLOG_INFO("[%s] vlan_range [%d, %d]", kTag, static_cast<int>(start), static_cast<int>(end));
    VlanRangeMsg* const range = entry->add_vlan_range();
    range->set_start(start);
    range->set_end(end);
  }
  for (const auto& [key, value] : vnic.extra_configs) {
    ZLOG_INFO("[%s] extra_configs [%s : %s]", kTag, key.c_str(), value.c_str());
    ConfigPairMsg* const pair = entry->add_extra_configs();
    pair->set_key(key);
    pair->set_value(value);
  }
}

void PutVnics(const MigrationHostSwitch& wanted, bool in, const std::string& id,
              QubMgmtIfMigrationMsg* migration) {
  for (const MigrationVnic& vnic : wanted.vnics) {
    ZLOG_INFO("[%s] vnic [%s]", kTag, vnic.vnic_id.c_str());
    if (in) {
      QubMgmtIfToLogicSwitchMsg* const entry = migration->add_to_lswitches();
      entry->set_host_switch_id(id);
      FillMoveIn(vnic, entry);
    } else {
      QubMgmtIfToPlnMsg* const entry = migration->add_to_vsw_or_psw();
      entry->set_host_switch_id(id);
      entry->set_device(vnic.vnic_id);
      entry->set_port_group(vnic.port_group_name);
    }
  }
}

// Without interfaces, an entry that names only the switch means that its physical NICs move.
bool PutPnicsAlone(const MigrationHostSwitch& wanted, bool in, const HostSwitchMsg& host_switch,
                   QubMgmtIfMigrationMsg* migration, std::string* error) {
  ZLOG_INFO("[%s] No vnic to migrate; only %d PNICs to keep in NKLN %s", kTag,
            static_cast<int>(wanted.pnics.size()), host_switch.name().c_str());
  if (in) {
    migration->add_to_lswitches()->set_host_switch_id(host_switch.id());
    return true;
  }
  if (wanted.dvs_or_pln_name.empty()) {
    return Refuse(error,
                  "DVS or PLN name is not given by dvs_or_pln_name to migrate only PNICs out of NKLN " +
                      host_switch.name());
  }
  QubMgmtIfToPlnMsg* const entry = migration->add_to_vsw_or_psw();
  entry->set_host_switch_id(host_switch.id());
  entry->set_port_group(wanted.dvs_or_pln_name);
  return true;
}

bool PutHostSwitch(const MigrationHostSwitch& wanted, bool in, HostConfigMsg* config, std::string* error) {
  if (wanted.IdOrName().empty()) {
    return Refuse(error, "Neither host_switch_id nor host_switch_name is given; one must be given");
  }
  HostSwitchMsg* const host_switch = Find(wanted, config);
  if (host_switch == nullptr) {
    return Refuse(error, "DVS [" + wanted.IdOrName() + "] is not found in HostConfigMsg");
  }
  const std::string& name = host_switch->name();
  ZLOG_INFO("[%s] NKLN [%s] management knls ping IP [%s]", kTag, name.c_str(),
            wanted.mgmt_knl_ping_ip.c_str());
  if (!in && wanted.id.empty()) {
    return Refuse(error, "host_switch_id must be given to migrate knl/pnic out of DVS " + name);
  }
  if (wanted.vnics.empty() && wanted.pnics.empty()) {
    ZLOG_INFO("[%s] Skip NKLN %s because of no vnic to migrate and no PNIC change", kTag, name.c_str());
    return true;
  }
  if (in && wanted.pnics.empty()) {
    return Refuse(error, "Migrating vnic into a NDVS without PNICs is not allowed; NKLN " + name);
  }
  QubMgmtIfMigrationMsg* const migration = config->mutable_qub_if_migration();
  if (!wanted.mgmt_knl_ping_ip.empty()) {
    QubKnlPingIpMsg* const ping = migration->add_knl_ping_ip();
    ping->set_host_switch_id(host_switch->id());
    ping->set_ping_ip(wanted.mgmt_knl_ping_ip);
  }
  if (wanted.vnics.empty()) {
    if (!PutPnicsAlone(wanted, in, *host_switch, migration, error)) return false;
  } else {
    PutVnics(wanted, in, host_switch->id(), migration);
  }
  for (const MigrationVnic& vnic : wanted.vnics) {
    if (in && vnic.is_vtep) PutVtep(wanted, vnic, host_switch);
  }
  host_switch->clear_pnic();
  for (const MigrationPnic& pnic : wanted.pnics) {
    ZLOG_INFO("[%s] pnic [%s] uplink [%s]", kTag, pnic.device_name.c_str(), pnic.uplink_name.c_str());
    PhysicalNicMsg* const added = host_switch->add_pnic();
    added->set_device_name(pnic.device_name);
    added->set_uplink_name(pnic.uplink_name);
  }
  return true;
}

}  // namespace

bool PutIntoConfig(const MigrationRequest& request, HostConfigMsg* config, std::string* error) {
  config->clear_qub_if_migration();
  for (const MigrationHostSwitch& wanted : request.host_switches) {
    if (!PutHostSwitch(wanted, request.in, config, error)) return false;
  }
  return true;
}

}  // namespace zem::zema
