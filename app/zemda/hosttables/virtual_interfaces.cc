#include "app/zemda/hosttables/virtual_interfaces.h"

#include <algorithm>
#include <array>

#include "app/zemda/hosttables/column_table.h"
#include "framework/log/log.h"
#include "proto/ida/ida.pb.h"

namespace ZemDa {
namespace {

namespace ida = orlane::zem::ida;

constexpr zem::LogSource kLog{"tarvik", "zemda"};

enum Column : size_t {
  kInterface,
  kPortGroup,
  kFamily,
  kAddress,
  kNetmask,
  kBroadcast,
  kMac,
  kMtu,
  kTsoMss,
  kEnabled,
  kType,
  kNetStack
};
constexpr std::array kColumns = {"Interface", "Port Group", "IP Family",   "IP Address",
                                 "Netmask",   "Broadcast",  "MAC Address", "MTU",
                                 "TSO MSS",   "Enabled",    "Type",        "NetStack"};
static_assert(kColumns.size() == kNetStack + 1);

constexpr const char* kAbsent = "N/A";
constexpr const char* kPrefix = "config.network.nics.vnic.";
constexpr uint32_t kChangedFlag = 4;

struct Mode {
  const char* text;
  uint32_t mode;
};
constexpr std::array kModes = {Mode{"DHCP", 0}, Mode{"STATIC", 1}, Mode{"AUTOCONF", 4}};
constexpr uint32_t kOtherMode = 2;

struct PropertyField {
  const char* name;
  void (*set)(ida::InterfaceMsg& interface, const std::string& value);
};
constexpr std::array kFields = {
    PropertyField{"LportAttachmentId",
                  [](ida::InterfaceMsg& i, const std::string& v) { i.set_lport_attachment_id(v); }},
    PropertyField{"BackingType", [](ida::InterfaceMsg& i, const std::string& v) { i.set_backing_type(v); }},
    PropertyField{"ConnectedSwitch",
                  [](ida::InterfaceMsg& i, const std::string& v) { i.set_connected_switch(v); }},
    PropertyField{"BackingPortSwitchUuid",
                  [](ida::InterfaceMsg& i, const std::string& v) { i.set_backing_port_switch_uuid(v); }},
    PropertyField{"BackingPortPortgroupKey",
                  [](ida::InterfaceMsg& i, const std::string& v) { i.set_backing_port_portgroup_key(v); }},
    PropertyField{"BackingPortPortKey",
                  [](ida::InterfaceMsg& i, const std::string& v) { i.set_backing_port_port_key(v); }}};

uint32_t ModeOf(const std::string& type) {
  for (const Mode& each : kModes) {
    if (type.find(each.text) != std::string::npos) return each.mode;
  }
  return kOtherMode;
}

ida::InterfaceMsg* InterfaceNamed(const std::string& name, int first, ida::HostMsg* host) {
  for (int i = first; i < host->interface_size(); ++i) {
    if (host->interface(i).name() == name) return host->mutable_interface(i);
  }
  auto* const interface = host->add_interface();
  interface->set_name(name);
  interface->set_kind(ida::InterfaceMsg::VIRTUAL);
  return interface;
}

void AddProperties(const std::map<std::string, std::string>& properties, ida::InterfaceMsg* interface) {
  const std::string prefix = kPrefix + interface->name();
  if (const auto changed = properties.find(prefix);
      changed != properties.end() && changed->second == "Changed")
    interface->set_flags(kChangedFlag);
  for (const PropertyField& field : kFields) {
    const auto found = properties.find(prefix + "." + field.name);
    if (found != properties.end()) field.set(*interface, found->second == "empty" ? "" : found->second);
  }
  const auto cookie = properties.find(prefix + ".BackingPortConnectionCookie");
  if (cookie == properties.end()) return;
  const bool none = cookie->second.empty() || cookie->second == "empty";
  interface->set_backing_port_connection_cookie(none ? "0" : cookie->second);
}

}  // namespace

void AddVirtualInterfaces(std::string_view table, const std::map<std::string, std::string>& properties,
                          const std::vector<std::string>& management, ida::HostMsg* host) {
  const auto lines = LinesOf(table);
  ColumnTable columns;
  std::string missing;
  if (!columns.ReadHeader(lines.empty() ? std::string_view() : lines.front(), kColumns, &missing)) {
    ZLOG_ERROR("MPA21002", "Failed to parse postion of %s in header of Virtual Nics output", missing.c_str());
    return;
  }
  const int first = host->interface_size();
  for (size_t i = 1; i < lines.size(); ++i) {
    const auto cell = [&](Column column) { return columns.Cell(lines[i], column); };
    const std::string family = cell(kFamily);
    if (family != "IPv4" && family != "IPv6") continue;
    auto* const interface = InterfaceNamed(cell(kInterface), first, host);
    auto* const entry = interface->add_interface_entry();
    if (const std::string address = cell(kAddress); address != kAbsent) entry->set_ip_address(address);
    if (const std::string netmask = cell(kNetmask); netmask != kAbsent) entry->set_netmask(netmask);
    if (const std::string broadcast = cell(kBroadcast); broadcast != kAbsent) entry->set_broadcast(broadcast);
    entry->set_mac_address(cell(kMac));
    entry->set_address_mode(ModeOf(cell(kType)));
    interface->set_mtu(NumberOf(cell(kMtu)));
    const bool enabled = cell(kEnabled) == "true";
    interface->set_admin_up(enabled);
    interface->set_link_up(enabled);
  }
  for (int i = first; i < host->interface_size(); ++i) {
    auto* const interface = host->mutable_interface(i);
    AddProperties(properties, interface);
    if (std::ranges::find(management, interface->name()) != management.end())
      interface->set_is_management(true);
  }
}

}  // namespace ZemDa
