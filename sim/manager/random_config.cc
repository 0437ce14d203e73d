#include "sim/manager/random_config.h"

#include <openssl/evp.h>

#include <array>

namespace zem::sim {
namespace {

namespace switching = orlane::zem::switching;

constexpr const char* kConfigId = "c0000000-0000-4000-8000-000000000001";
constexpr const char* kThirdZone = "a0000000-0000-4000-8000-0000000000a3";

void AddSwitch(switching::HostConfigMsg* config, int number, const std::string& zone, bool overlay,
               std::mt19937_64& random) {
  auto* const added = config->add_host_switches();
  const std::string n = std::to_string(number);
  added->set_id("502e6b1a-77c0-41aa-9d11-00000000000" + n);
  added->set_name("ks-" + n);
  added->set_type(overlay ? 2 : 1);
  added->set_mtu(static_cast<uint32_t>(1600 + random() % 3 * 100));
  added->add_transport_zone_id(zone);
  auto* const first = added->add_pnic();
  first->set_device_name("vmnic" + std::to_string(number * 2 - 1));
  first->set_uplink_name("u1");
  if (random() % 2 == 0) {
    auto* const second = added->add_pnic();
    second->set_device_name("vmnic" + std::to_string(number * 2));
    second->set_uplink_name("u2");
  }
  auto* const uplinks = added->mutable_profiles()->mutable_uplink_profile();
  uplinks->add_active_uplink()->set_name("u1");
  uplinks->add_standby_uplink()->set_name("u2");
  if (!overlay) return;
  added->set_overlay(true);
  added->set_static_address(true);
  added->set_transport_vlan(150);
  added->set_default_gateway("172.16." + n + ".1");
  added->set_subnet_mask("255.255.255.0");
  for (uint64_t i = 0, count = 1 + random() % 3; i < count; ++i) {
    auto* const endpoint = added->add_vteps();
    endpoint->set_device_name("knl" + n + std::to_string(i));
    endpoint->set_ipv4_address("172.16." + n + "." + std::to_string(10 + i));
  }
}

}  // namespace

switching::HostConfigMsg MakeConfig(const std::string& node_id, int revision, std::mt19937_64& random) {
  switching::HostConfigMsg config;
  config.set_id(kConfigId);
  config.set_revision(std::to_string(revision));
  config.set_transport_node_id(node_id);
  config.set_phase(switching::HostConfigMsg::PHASE2_COMBINED);
  AddSwitch(&config, 1, kZones[0], true, random);
  AddSwitch(&config, 2, kZones[1], false, random);
  if (random() % 2 == 0) AddSwitch(&config, 3, kThirdZone, true, random);
  return config;
}

void MoveInterfaceIn(const std::string& device, const std::string& ls, const std::string& vif,
                     const std::string& port, switching::HostConfigMsg* config) {
  auto* const move = config->mutable_qub_if_migration()->add_to_lswitches();
  move->set_device(device);
  move->set_lswitch_id(ls);
  move->set_host_switch_id(kSecondSwitch);
  move->set_vif_id(vif);
  move->set_logical_port_id(port);
  move->set_transport_zone_id(kZones[1]);
}

void MoveInterfaceOut(const std::string& device, const std::string& port_group,
                      switching::HostConfigMsg* config) {
  auto* const move = config->mutable_qub_if_migration()->add_to_vsw_or_psw();
  move->set_device(device);
  move->set_port_group(port_group);
  move->set_host_switch_id(kSecondSwitch);
}

switching::HostConfigMsg MakeRemoval() {
  switching::HostConfigMsg config;
  config.set_id(kConfigId);
  config.set_revision("-1");
  return config;
}

std::string ChecksumOf(const switching::HostConfigMsg& config) {
  return ChecksumOf(config.transport_node_id(), config.id(), config.revision());
}

std::string ChecksumOf(const std::string& node_id, const std::string& id, const std::string& revision) {
  const std::string text = node_id + id + revision;
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned length = 0;
  EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_sha256(), nullptr);
  std::string hex;
  for (unsigned i = 0; i < length; ++i) {
    constexpr const char* kDigits = "0123456789abcdef";
    hex += kDigits[digest[i] >> 4];
    hex += kDigits[digest[i] & 15];
  }
  return hex;
}

}  // namespace zem::sim
