#include "sim/truth/host_diff.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "proto/switching/switching.pb.h"
#include "sim/host/host_state.h"

namespace zem::sim {
namespace {

namespace fs = std::filesystem;

Json ReadJson(const fs::path& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return Json(cJSON_Parse(text.str().c_str()));
}

std::string Text(const cJSON* object, const char* name) {
  const cJSON* const member = cJSON_GetObjectItemCaseSensitive(object, name);
  return cJSON_IsString(member) ? member->valuestring : "";
}

// Formats a uuid as the host does: pairs of digits separated by blanks, and "-" after the eighth.
std::string HostForm(const std::string& uuid) {
  if (uuid.find(' ') != std::string::npos) return uuid;
  std::string digits;
  for (const char c : uuid) {
    if (c != '-') digits += c;
  }
  std::string text;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    if (i > 0) text += i == 16 ? '-' : ' ';
    text += digits.substr(i, 2);
  }
  return text;
}

std::string MacDigits(const std::string& mac) {
  std::string digits;
  for (const char c : mac) {
    if (c != ':') digits += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return digits;
}

void Sort(HostSwitchState* state) {
  std::sort(state->zones.begin(), state->zones.end());
  std::sort(state->pnics.begin(), state->pnics.end());
  std::sort(state->endpoints.begin(), state->endpoints.end());
}

void DiffList(const std::string& what, const std::vector<std::string>& wanted,
              const std::vector<std::string>& had, std::vector<std::string>* lines) {
  for (const std::string& each : wanted) {
    if (std::find(had.begin(), had.end(), each) == had.end()) lines->push_back("lacks " + what + " " + each);
  }
  for (const std::string& each : had) {
    if (std::find(wanted.begin(), wanted.end(), each) == wanted.end())
      lines->push_back("has " + what + " " + each + " too much");
  }
}

void DiffValue(const std::string& what, const std::string& wanted, const std::string& had,
               std::vector<std::string>* lines) {
  if (wanted != had) lines->push_back(what + " is [" + had + "] instead of [" + wanted + "]");
}

}  // namespace

std::vector<HostSwitchState> ReadHostSwitches() {
  const fs::path root = fs::path(HostState::DefaultRoot()) / "switch";
  std::map<std::string, HostSwitchState> switches;
  std::error_code missing;
  for (const auto& folder : fs::directory_iterator(root / "switches", missing)) {
    const Json meta = ReadJson(folder.path() / "meta.json");
    if (!meta) continue;
    HostSwitchState& state = switches[Text(meta.get(), "id")];
    state.id = Text(meta.get(), "id");
    state.name = Text(meta.get(), "name");
    state.kind = Text(meta.get(), "kind");
    const Json router = ReadJson(root / "vdr" / (state.id + ".json"));
    if (cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(router.get(), "plumbed"))) {
      state.router = MacDigits(Text(router.get(), "vmac"));
    }
    if (const cJSON* const mtu = cJSON_GetObjectItemCaseSensitive(meta.get(), "mtu"))
      state.mtu = mtu->valueint;
    const cJSON* each = nullptr;
    cJSON_ArrayForEach(each, cJSON_GetObjectItemCaseSensitive(meta.get(), "zones")) {
      if (cJSON_IsString(each)) state.zones.push_back(each->valuestring);
    }
    cJSON_ArrayForEach(each, cJSON_GetObjectItemCaseSensitive(meta.get(), "pnics")) {
      state.pnics.push_back(Text(each, "dev") + "~" + Text(each, "uplink"));
    }
  }
  for (const auto& file : fs::directory_iterator(root / "knlnics", missing)) {
    const Json endpoint = ReadJson(file.path());
    if (!endpoint) continue;
    const auto found = switches.find(Text(endpoint.get(), "switchId"));
    if (found != switches.end()) found->second.endpoints.push_back(Text(endpoint.get(), "device"));
  }
  std::vector<HostSwitchState> list;
  for (auto& [id, state] : switches) {
    Sort(&state);
    list.push_back(std::move(state));
  }
  return list;
}

std::vector<HostSwitchState> WantedHostSwitches(const orlane::zem::switching::HostConfigMsg& config) {
  constexpr uint32_t kKln = 2;
  constexpr uint32_t kBecomesKln = 3;
  std::map<std::string, HostSwitchState> switches;
  for (const auto& wanted : config.host_switches()) {
    HostSwitchState& state = switches[HostForm(wanted.id())];
    state.id = HostForm(wanted.id());
    state.name = wanted.name();
    state.kind = wanted.type() == kKln || wanted.type() == kBecomesKln ? "KLN" : "NVS";
    state.mtu = wanted.mtu();
    state.router = MacDigits(wanted.vdr_mac());
    state.zones.assign(wanted.transport_zone_id().begin(), wanted.transport_zone_id().end());
    for (const auto& pnic : wanted.pnic())
      state.pnics.push_back(pnic.device_name() + "~" + pnic.uplink_name());
    for (const auto& vtep : wanted.vteps()) state.endpoints.push_back(vtep.device_name());
  }
  std::vector<HostSwitchState> list;
  for (auto& [id, state] : switches) {
    Sort(&state);
    list.push_back(std::move(state));
  }
  return list;
}

std::vector<std::string> DiffHost(const orlane::zem::switching::HostConfigMsg& config,
                                  const std::string& host_node_id) {
  std::vector<std::string> lines;
  DiffValue("the transport node id", config.transport_node_id(), host_node_id, &lines);
  std::map<std::string, HostSwitchState> had;
  for (HostSwitchState& state : ReadHostSwitches()) had[state.id] = std::move(state);
  for (const HostSwitchState& wanted : WantedHostSwitches(config)) {
    const auto found = had.find(wanted.id);
    if (found == had.end()) {
      lines.push_back("lacks switch " + wanted.name + " [" + wanted.id + "]");
      continue;
    }
    const HostSwitchState& state = found->second;
    const std::string of = "of switch " + wanted.name;
    DiffValue("the name " + of, wanted.name, state.name, &lines);
    DiffValue("the kind " + of, wanted.kind, state.kind, &lines);
    DiffValue("the MTU " + of, std::to_string(wanted.mtu), std::to_string(state.mtu), &lines);
    DiffValue("the router's address " + of, wanted.router, state.router, &lines);
    DiffList("zone " + of, wanted.zones, state.zones, &lines);
    DiffList("physical NIC " + of, wanted.pnics, state.pnics, &lines);
    DiffList("endpoint " + of, wanted.endpoints, state.endpoints, &lines);
    had.erase(found);
  }
  for (const auto& [id, state] : had) lines.push_back("has switch " + state.name + " [" + id + "] too much");
  return lines;
}

}  // namespace zem::sim
