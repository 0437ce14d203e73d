#include "app/zema/endpoint/vtep_command.h"

#include <algorithm>
#include <boost/algorithm/string/join.hpp>
#include <utility>

#include "app/zema/proxy/switch_record.h"
#include "proto/switching/host_switch.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr uint32_t kStateNotMigrated = 1;
constexpr std::string_view kFieldSeparators = "|";
constexpr std::string_view kListSeparators = "|,";
constexpr std::string_view kMemberSeparators = "|,~";

const char* Flag(bool value) { return value ? "1" : "0"; }

std::optional<std::string> Entry(const VtepMsg& vtep, std::string* error) {
  const std::pair<std::string_view, const std::string*> texts[] = {
      {"endpoint device", &vtep.device_name()},
      {"endpoint address", &vtep.ipv4_address()},
      {"endpoint IPv6 address", &vtep.ipv6_address()},
  };
  std::string entry;
  for (const auto& [field, text] : texts) {
    if (!FreeOfSeparators(field, *text, kMemberSeparators, error)) return std::nullopt;
    entry += *text + "~";
  }
  if (vtep.mac().has_value()) entry += std::to_string(vtep.mac().value());
  entry += "~";
  if (vtep.state() == kStateNotMigrated) entry += "skip_migrating";
  return entry;
}

}  // namespace

bool NeedsIpv6Endpoints(const HostSwitchMsg& host_switch) {
  return host_switch.ipv6_dhcp() || host_switch.ipv6_auto_conf() ||
         std::any_of(host_switch.vteps().begin(), host_switch.vteps().end(),
                     [](const VtepMsg& vtep) { return !vtep.ipv6_address().empty(); });
}

std::optional<std::string> BuildApplyVtep(const HostSwitchMsg& host_switch,
                                          const std::vector<std::string>& migrated, bool upgrade,
                                          std::string* error) {
  std::vector<std::string> entries;
  for (const VtepMsg& vtep : host_switch.vteps()) {
    std::optional<std::string> entry = Entry(vtep, error);
    if (!entry) return std::nullopt;
    entries.push_back(std::move(*entry));
  }
  for (const std::string& device : migrated) {
    if (!FreeOfSeparators("migrated endpoint", device, kListSeparators, error)) return std::nullopt;
  }
  const std::pair<std::string_view, std::string> unlisted[] = {
      {"uuid", host_switch.id()},
      {"defaultGateway", host_switch.default_gateway()},
      {"subnetMask", host_switch.subnet_mask()},
      {"ipv6DefaultGateway", host_switch.ipv6_default_gateway()},
      {"ipv6PrefixLength", host_switch.ipv6_prefix_length()},
      {"vlan", host_switch.has_transport_vlan() ? std::to_string(host_switch.transport_vlan()) : ""},
      {"mtu", host_switch.has_vtep_mtu() ? std::to_string(host_switch.vtep_mtu()) : ""},
      {"dhcp", Flag(!host_switch.static_address())},
      {"ipv6Dhcp", Flag(host_switch.ipv6_dhcp())},
      {"ipv6AutoConf", Flag(host_switch.ipv6_auto_conf())},
  };
  std::string command = "applyVtep(";
  for (const auto& [key, value] : unlisted) {
    if (!FreeOfSeparators(key, value, kFieldSeparators, error)) return std::nullopt;
    command += std::string(key) + "=" + value + "|";
  }
  command += "vtep=" + boost::join(entries, ",");
  command += "|vtepsMigrated=" + boost::join(migrated, ",");
  command += std::string("|upgrade=") + (upgrade ? "true" : "false") + ")";
  return command;
}

}  // namespace zem::zema
