#include "app/zema/migration_files/vm_port_request.h"

#include "app/zema/migration/migration_file.h"
#include "app/zema/ports/port_description.h"
#include "app/zema/ports/vif_request.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "LoadPortDataFromVmsMigrationFile";

struct NeededKey {
  const char* key;
  std::string MigrationVnic::*field;
};
constexpr NeededKey kNeededInside[] = {
    {"logical_switch_id", &MigrationVnic::logical_switch_id},
    {"logical_port_id", &MigrationVnic::logical_port_id},
    {"transport_zone_id", &MigrationVnic::transport_zone_id},
};

// Returns why the vNIC's port is ignored; empty when it is complete.
std::string WhyIgnored(const MigrationVnic& vnic, bool in) {
  if (!vnic.OfVm()) return "it is not a VM nic";
  if (vnic.is_vtep) return "it is marked as a VTEP";
  if (vnic.vif_id.empty()) return "its vif_id is unset/empty";
  if (!in) return {};
  for (const auto& [key, field] : kNeededInside) {
    if ((vnic.*field).empty()) return std::string("its ") + key + " is unset/empty";
  }
  return {};
}

std::shared_ptr<VifRequest> PortOf(const MigrationVnic& vnic, bool in) {
  auto request = std::make_shared<VifRequest>();
  request->op_code = in ? VifRequest::kAttachToVifUuid : VifRequest::kDetach;
  request->vif_id = vnic.vif_id;
  request->ls_id = vnic.logical_switch_id;
  request->port_id = vnic.logical_port_id;
  request->zone_id = vnic.transport_zone_id;
  request->gcf_path = vnic.vnic_id;
  request->spec = std::make_shared<PortConfigSpec>();
  if (!in) {
    ZLOG_INFO("[%s] vnic [%s] goes to [%s]", kTag, vnic.vnic_id.c_str(), vnic.port_group_name.c_str());
    return request;
  }
  PortConfigSpec& spec = *request->spec;
  spec.port_id = vnic.logical_port_id;
  spec.zone_id = vnic.transport_zone_id;
  spec.switch_id = vnic.logical_switch_id;
  spec.extra_configs = vnic.extra_configs;
  spec.init_state = vnic.init_state;
  if (vnic.vlan) spec.vlan = static_cast<int32_t>(*vnic.vlan);
  spec.vlan_ranges = vnic.vlan_trunk_ranges;
  spec.uplink_teaming = vnic.uplink_teaming_name;
  return request;
}

}  // namespace

VmPortMap VmPortsOf(const MigrationRequest& request) {
  VmPortMap ports;
  int vm_nics = 0;
  for (const MigrationHostSwitch& host_switch : request.host_switches) {
    for (const MigrationVnic& vnic : host_switch.vnics) {
      if (vnic.OfVm() && !vnic.is_vtep) ++vm_nics;
      const std::string why = WhyIgnored(vnic, request.in);
      if (!why.empty()) {
        ZLOG_INFO("[%s] vnic [%s] is ignored because %s", kTag, vnic.vnic_id.c_str(), why.c_str());
        continue;
      }
      const auto port = PortOf(vnic, request.in);
      ZLOG_INFO("[%s] Loaded VM VIF port data {%s}", kTag, port->ToString().c_str());
      ports[vnic.vif_id] = port;
    }
  }
  if (ports.empty()) {
    ZLOG_INFO("[%s] No VM VIF port data is cached for %d VM NICs", kTag, vm_nics);
  } else {
    ZLOG_INFO("[%s] Cached data of %lu VM VIF ports for %d VM NICs", kTag,
              static_cast<unsigned long>(ports.size()), vm_nics);
  }
  return ports;
}

}  // namespace zem::zema
