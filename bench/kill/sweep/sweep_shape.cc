#include "bench/kill/sweep/sweep_shape.h"

#include "bench/kill/sweep/sweep_run.h"
#include "sim/manager/random_config.h"

namespace zem::bench {
namespace {

constexpr const char* kThirdZone = "a0000000-0000-4000-8000-0000000000a3";

std::string SwitchText(int number, const std::string& zone, bool overlay, const Shape& shape) {
  const std::string n = std::to_string(number);
  std::string text = " host_switches { id: " + Quoted(SwitchId(number)) + " name: \"ks-" + n +
                     "\" type: " + (overlay ? "2" : "1") + " mtu: " + std::to_string(shape.mtu) +
                     " transport_zone_id: " + Quoted(zone) + " pnic { device_name: \"vmnic" +
                     std::to_string(number * 2 - 1) + "\" uplink_name: \"u1\" }";
  // The host has no sixth one.
  if (shape.two_uplinks && number != 3) {
    text += " pnic { device_name: \"vmnic" + std::to_string(number * 2) + "\" uplink_name: \"u2\" }";
  }
  text += " profiles { uplink_profile { active_uplink { name: \"u1\" } standby_uplink { name: \"u2\" } }";
  if (shape.performance && number == 1) {
    text += " high_performance_profile { config { type: HIGH_PERFORMANCE_CONFIG_1 } }";
  }
  text += " }";
  if (!overlay) return text + " }";
  text += " overlay: true static_address: true transport_vlan: 150 default_gateway: \"172.16." + n +
          ".1\" subnet_mask: \"255.255.255.0\"";
  for (int i = 0; i < shape.endpoints; ++i) {
    text += " vteps { device_name: \"knl" + n + std::to_string(i) + "\" ipv4_address: \"172.16." + n + "." +
            std::to_string(10 + i) + "\" }";
  }
  if (number == 1) {
    text += std::string(" vdr_mac: \"02:50:56:56:44:5") + (shape.second_router ? "3" : "2") + "\"";
  }
  return text + " }";
}

}  // namespace

std::string ConfigText(const Shape& shape, int revision) {
  std::string text = "id: " + Quoted(kConfigId) + " revision: " + Quoted(std::to_string(revision)) +
                     " transport_node_id: " + Quoted(kNodeId) + " phase: PHASE2_COMBINED" +
                     SwitchText(1, sim::kZones[0], true, shape) + SwitchText(2, sim::kZones[1], false, shape);
  if (shape.third_switch) text += SwitchText(3, kThirdZone, true, shape);
  if (shape.interface == Shape::Interface::kIn) {
    text += " qub_if_migration { to_lswitches { device: \"knl0\" lswitch_id: " + Quoted(kNetwork) +
            " host_switch_id: " + Quoted(SwitchId(2)) + " vif_id: " + Quoted(kVif) +
            " logical_port_id: " + Quoted(kLogicalPort) + " transport_zone_id: " + Quoted(sim::kZones[1]) +
            " } }";
  }
  if (shape.interface == Shape::Interface::kOut) {
    text +=
        " qub_if_migration { to_vsw_or_psw { device: \"knl0\" port_group: \"Management Network\" "
        "host_switch_id: " +
        Quoted(SwitchId(2)) + " } }";
  }
  return text;
}

}  // namespace zem::bench
