#include "sim/switch/sim_state.h"

#include <algorithm>
#include <filesystem>

#include "sim/switch/tree/json_file.h"
#include "sim/switch/tree/port_table.h"
#include "sim/switch/tree/state_tree.h"

namespace zem::sim {
namespace {

constexpr uint32_t kFlags = 16;

void SetList(cJSON* object, const char* name, const std::vector<std::string>& texts) {
  cJSON_DeleteItemFromObjectCaseSensitive(object, name);
  cJSON* const list = cJSON_AddArrayToObject(object, name);
  for (const std::string& text : texts) cJSON_AddItemToArray(list, cJSON_CreateString(text.c_str()));
}

// A value for display: a text without its terminating zero, anything else unchanged.
std::string Shown(std::string bytes) {
  if (!bytes.empty() && bytes.find('\0') == bytes.size() - 1) bytes.pop_back();
  return bytes;
}

std::optional<std::string> Property(const std::string& path) {
  auto property = tree::ReadProperty(path);
  if (!property) return std::nullopt;
  return Shown(std::move(property->bytes));
}

bool WriteProperty(const std::string& path, const std::string& bytes) {
  const tree::TreeLock lock;
  return tree::WriteFile(path, tree::PropertyFile(kFlags, bytes));
}

std::vector<std::string> Sorted(std::optional<std::vector<std::string>> names) {
  if (!names) return {};
  std::sort(names->begin(), names->end());
  return std::move(*names);
}

}  // namespace

SwitchState::SwitchState() {
  for (const std::string& folder :
       {tree::SwitchesDir(), tree::KnlnicsDir(), tree::Root() + "/switch/vdr", tree::Root() + "/host"}) {
    std::filesystem::create_directories(folder);
  }
}

bool SwitchState::MakeSwitch(const Switch& host_switch) {
  if (!tree::GoodName(host_switch.id)) return false;
  const tree::TreeLock lock;
  const std::string directory = tree::SwitchDir(host_switch.id);
  std::error_code error;
  for (const char* const folder : {"/global", "/host", "/ports"}) {
    std::filesystem::create_directories(directory + folder, error);
    if (error) return false;
  }
  JsonFile meta = ReadJson(directory + "/meta.json");
  if (!meta) {
    meta.reset(cJSON_CreateObject());
    SetJson(meta.get(), "mtu", 1600);
    SetJson(meta.get(), "overlay", true);
    SetJson(meta.get(), "mode", std::string("false"));
    SetList(meta.get(), "cpu", {});
    SetJson(meta.get(), "security", false);
    cJSON_AddArrayToObject(meta.get(), "pnics");
  }
  SetJson(meta.get(), "id", host_switch.id);
  SetJson(meta.get(), "name", host_switch.name);
  SetJson(meta.get(), "kind", host_switch.kind);
  SetList(meta.get(), "zones", host_switch.zones);
  SetList(meta.get(), "uplinks", host_switch.uplinks);
  return WriteJson(directory + "/meta.json", meta.get());
}

bool SwitchState::RemoveSwitch(const std::string& id) {
  if (!tree::GoodName(id)) return false;
  const tree::TreeLock lock;
  static_cast<void>(tree::RemoveFile(tree::RouterFile(id)));
  return tree::RemoveTree(tree::SwitchDir(id));
}

std::vector<std::string> SwitchState::SwitchIds() const { return Sorted(tree::List(tree::SwitchesDir())); }

std::vector<std::string> SwitchState::Ports(const std::string& dvs) const {
  return Sorted(tree::List(tree::SwitchDir(dvs) + "/ports"));
}

std::map<std::string, std::string> SwitchState::PortProperties(const std::string& dvs,
                                                               const std::string& port) const {
  std::map<std::string, std::string> properties;
  const auto state = ports::State(dvs, port, false);
  if (!state) return properties;
  for (const ValueList::Item& item : state->items()) properties[item.name] = Shown(item.value);
  return properties;
}

std::optional<std::string> SwitchState::PortProperty(const std::string& dvs, const std::string& port,
                                                     const std::string& name) const {
  return Property(ports::PropertyPath(dvs, port, name));
}

bool SwitchState::SetPortProperty(const std::string& dvs, const std::string& port, const std::string& name,
                                  const std::string& text) {
  return tree::GoodName(dvs) && tree::GoodName(port) && tree::GoodName(name) &&
         WriteProperty(ports::PropertyPath(dvs, port, name), text + '\0');
}

std::optional<std::string> SwitchState::SwitchProperty(const std::string& dvs, const std::string& place,
                                                       const std::string& name) const {
  return Property(tree::SwitchDir(dvs) + "/" + place + "/" + name);
}

bool SwitchState::SetSwitchProperty(const std::string& dvs, const std::string& place, const std::string& name,
                                    const std::string& bytes) {
  return tree::GoodName(dvs) && tree::GoodName(name) &&
         WriteProperty(tree::SwitchDir(dvs) + "/" + place + "/" + name, bytes);
}

void SwitchState::RebootHost() {
  const tree::TreeLock lock;
  for (const std::string& id : SwitchIds()) {
    ports::RemoveAll(id);
    static_cast<void>(tree::RemoveFile(tree::RouterFile(id)));
  }
}

bool SwitchState::LosePorts(const std::string& dvs) {
  const tree::TreeLock lock;
  if (!tree::GoodName(dvs) || !tree::Exists(tree::SwitchDir(dvs) + "/meta.json")) return false;
  ports::RemoveAll(dvs);
  return true;
}

bool SwitchState::AddFault(std::string_view line, std::string* error) {
  auto rule = ParseFaultRule(line, error);
  if (!rule) return false;
  const tree::TreeLock lock;
  std::vector<FaultRule> rules = ReadFaultRules();
  rules.push_back(std::move(*rule));
  WriteFaultRules(rules);
  return true;
}

void SwitchState::ClearFaults(std::string_view function) {
  const tree::TreeLock lock;
  std::vector<FaultRule> rules = ReadFaultRules();
  std::erase_if(rules, [&](const FaultRule& rule) { return function.empty() || rule.function == function; });
  WriteFaultRules(rules);
}

std::vector<std::string> SwitchState::Faults() const {
  std::vector<std::string> lines;
  for (const FaultRule& rule : ReadFaultRules()) lines.push_back(rule.Line());
  return lines;
}

}  // namespace zem::sim
