#include "app/zemda/hosttables/physical_interfaces.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <vector>

#include "app/zemda/hosttables/column_table.h"
#include "framework/log/log.h"
#include "proto/ida/ida.pb.h"

namespace ZemDa {
namespace {

namespace ida = orlane::zem::ida;

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr size_t kHeaderLines = 2;
constexpr uint32_t kOtherMode = 2;

enum Word : size_t { kName = 0, kAdmin = 3, kLink = 4, kMac = 7, kMtu = 8 };

constexpr const char* kInterruptColumn = "INTR Capable";
constexpr std::array kColumns = {"Name", "Driver", "ENS Capable", "ENS Driven", "MAC Address", "Description"};
constexpr std::array kColumnsWithInterrupts = {"Name",         "Driver",       "ENS Capable", "ENS Driven",
                                               "INTR Capable", "INTR Enabled", "MAC Address", "Description"};

struct Flag {
  size_t column;
  uint32_t flag;
};
constexpr std::array kFlags = {Flag{2, 1}, Flag{3, 2}};
constexpr std::array kInterruptFlags = {Flag{4, 8}, Flag{5, 16}};

std::vector<std::string> Words(std::string_view line) {
  std::istringstream in{std::string(line)};
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

const std::string* Find(const std::map<std::string, std::string>& properties, const std::string& name) {
  const auto found = properties.find(name);
  return found == properties.end() ? nullptr : &found->second;
}

}  // namespace

void AddPhysicalInterfaces(std::string_view table, const std::map<std::string, std::string>& properties,
                           ida::HostMsg* host) {
  const std::string switches = "config.network.switches";
  const std::string* const changed = Find(properties, switches);
  const auto lines = LinesOf(table);
  for (size_t i = kHeaderLines; i < lines.size(); ++i) {
    const auto words = Words(lines[i]);
    if (words.empty()) continue;
    auto* const interface = host->add_interface();
    interface->set_kind(ida::InterfaceMsg::PHYSICAL);
    auto* const entry = interface->add_interface_entry();
    entry->set_address_mode(kOtherMode);
    interface->set_name(words[kName]);
    if (words.size() > kAdmin) interface->set_admin_up(words[kAdmin] == "Up");
    if (words.size() > kLink) interface->set_link_up(words[kLink] == "Up");
    if (words.size() > kMac) entry->set_mac_address(words[kMac]);
    if (words.size() > kMtu) interface->set_mtu(NumberOf(words[kMtu]));
    const std::string& name = words[kName];
    if (changed != nullptr && *changed == "Changed") {
      if (const auto* const connected = Find(properties, switches + "." + name))
        interface->set_connected_switch(*connected);
      if (const auto* const backing = Find(properties, switches + "." + name + ".BackingType"))
        interface->set_backing_type(*backing);
    }
    const auto* const dpu = Find(properties, "config.network.nics.dpuId." + name);
    if (dpu != nullptr && !dpu->empty()) interface->set_dpu_id(*dpu);
  }
}

bool IsFastPathTable(std::string_view table) {
  const auto lines = LinesOf(table);
  return !lines.empty() && lines.front().find("invalid option") == std::string_view::npos;
}

void AddFastPathFlags(std::string_view table, const std::string& command, ida::HostMsg* host) {
  const auto lines = LinesOf(table);
  const bool interrupts = lines.front().find(kInterruptColumn) != std::string_view::npos;
  ColumnTable columns;
  std::string missing;
  const std::span<const char* const> names = interrupts ? std::span<const char* const>(kColumnsWithInterrupts)
                                                        : std::span<const char* const>(kColumns);
  if (!columns.ReadHeader(lines.front(), names, &missing)) {
    ZLOG_WARN("Failed to parse position of %s in header of ENS interfaces output", missing.c_str());
    return;
  }
  for (size_t i = 1; i < lines.size(); ++i) {
    const std::string name = columns.Cell(lines[i], 0);
    if (name.empty()) continue;
    const auto found = std::ranges::find_if(*host->mutable_interface(), [&](const ida::InterfaceMsg& each) {
      return each.kind() == ida::InterfaceMsg::PHYSICAL && each.name() == name;
    });
    if (found == host->mutable_interface()->end()) {
      ZLOG_WARN("InterfaceMsg %s is not listed by '%s', ignoring reporting its ENS feature.", name.c_str(),
                command.c_str());
      continue;
    }
    uint32_t flags = 0;
    const auto add = [&](const Flag& flag) {
      if (columns.Cell(lines[i], flag.column) == "True") flags |= flag.flag;
    };
    std::ranges::for_each(kFlags, add);
    if (interrupts) std::ranges::for_each(kInterruptFlags, add);
    found->set_flags(flags);
  }
}

}  // namespace ZemDa
