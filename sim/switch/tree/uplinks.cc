#include "sim/switch/tree/uplinks.h"

#include <sys/stat.h>
#include <time.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/switchlib/switchlib.h"
#include "sim/switch/tree/json_file.h"
#include "sim/switch/tree/state_tree.h"

namespace zem::sim::uplinks {
namespace {

constexpr std::string_view kAlias = "com.orlane.common.port.alias";
constexpr std::string_view kMtuResult = "com.orlane.vswitch.port.volatile.mtuchkresult";
constexpr std::string_view kVlanResult = "com.orlane.vswitch.port.volatile.vlanchkresult";
constexpr const char* kParam = "/global/com.orlane.vswitch.vlanmtucheck.param";
constexpr const char* kClockFactor = "ZEM_CLOCK_FACTOR";
constexpr int kCheckMs = 1000;
constexpr size_t kVlans = 4096;

using VlanSet = std::array<bool, kVlans>;

struct UplinkPort {
  std::string key;
  std::string uplink;
};

std::string CheckFile(const std::string& dvs) { return tree::SwitchDir(dvs) + "/.vlancheck"; }
std::string CheckTimeFile() { return tree::Root() + "/switch/check_ms"; }
std::string SettingsFile(const std::string& dvs, const std::string& uplink) {
  return tree::SwitchDir(dvs) + "/uplinks/" + uplink + ".json";
}

// Milliseconds of the node's time, which may run faster than the machine's.
int64_t NowMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const char* const text = std::getenv(kClockFactor);
  const int64_t factor = text == nullptr ? 1 : std::max(1, std::atoi(text));
  return (now.tv_sec * 1000 + now.tv_nsec / 1'000'000) * factor;
}

std::vector<UplinkPort> PortsOf(const std::string& dvs) {
  const JsonFile meta = ReadJson(tree::SwitchDir(dvs) + "/meta.json");
  std::vector<UplinkPort> ports;
  const cJSON* each = nullptr;
  cJSON_ArrayForEach(each, cJSON_GetObjectItemCaseSensitive(meta.get(), "pnics"))
      ports.push_back({"uplink-" + JsonString(each, "dev"), JsonString(each, "uplink")});
  if (!ports.empty()) return ports;
  cJSON_ArrayForEach(each, cJSON_GetObjectItemCaseSensitive(meta.get(), "uplinks")) {
    if (cJSON_IsString(each))
      ports.push_back({std::string("uplink-") + each->valuestring, each->valuestring});
  }
  return ports;
}

std::optional<VlanSet> ParseVlans(std::string_view text) {
  VlanSet vlans{};
  while (!text.empty()) {
    const std::string_view part = text.substr(0, text.find(','));
    text.remove_prefix(std::min(text.size(), part.size() + 1));
    size_t first = 0;
    const auto [dash, error] = std::from_chars(part.data(), part.data() + part.size(), first);
    if (error != std::errc()) return std::nullopt;
    size_t last = first;
    const char* const end = part.data() + part.size();
    if (dash != end && (*dash != '-' || std::from_chars(dash + 1, end, last).ptr != end)) return std::nullopt;
    if (last >= kVlans) return std::nullopt;
    for (size_t vlan = first; vlan <= last; ++vlan) vlans[vlan] = true;
  }
  return vlans;
}

void AppendNumber(std::string* value, size_t number) {
  const auto small = static_cast<uint16_t>(number);
  value->append(reinterpret_cast<const char*>(&small), sizeof(small));
}

// The members of `vlans` as ranges, and their number.
size_t AppendRanges(std::string* value, const VlanSet& vlans) {
  size_t count = 0;
  for (size_t first = 0; first < kVlans; ++first) {
    if (!vlans[first]) continue;
    size_t last = first;
    while (last + 1 < kVlans && vlans[last + 1]) ++last;
    AppendNumber(value, first);
    AppendNumber(value, last);
    ++count;
    first = last;
  }
  return count;
}

std::string Result(const VlanSet& first, const VlanSet& second, bool is_short, bool is_miscounted) {
  std::string ranges;
  const size_t count = AppendRanges(&ranges, first);
  const size_t others = AppendRanges(&ranges, second);
  std::string value;
  AppendNumber(&value, count + (is_miscounted ? 1 : 0));
  AppendNumber(&value, others);
  value += ranges;
  if (is_short) value.pop_back();
  return value;
}

bool CheckHasResults(const std::string& dvs) {
  const auto begin = tree::ReadFile(CheckFile(dvs));
  if (!begin) return false;
  const auto time = tree::ReadFile(CheckTimeFile());
  const int64_t takes = time ? std::atoll(time->c_str()) : kCheckMs;
  return NowMs() - std::atoll(begin->c_str()) >= takes;
}

std::optional<std::string> ResultOf(const std::string& dvs, const Settings& settings, bool of_mtu) {
  const auto param = tree::ReadProperty(tree::SwitchDir(dvs) + kParam);
  if (!CheckHasResults(dvs) || !param || param->bytes.size() != kVlans / 8) return std::nullopt;
  const JsonFile meta = ReadJson(tree::SwitchDir(dvs) + "/meta.json");
  const bool fits = settings.mtu >= JsonNumber(meta.get(), "mtu");
  const VlanSet carried = ParseVlans(settings.vlans).value_or(VlanSet());
  VlanSet first{};
  VlanSet second{};
  for (size_t vlan = 0; vlan < kVlans; ++vlan) {
    if ((static_cast<uint8_t>(param->bytes[vlan / 8]) >> vlan % 8 & 1) == 0) continue;
    if (of_mtu) {
      // What is not carried at all has no MTU.
      if (carried[vlan]) (fits ? second : first)[vlan] = true;
    } else {
      (carried[vlan] ? first : second)[vlan] = true;
    }
  }
  const std::string what = of_mtu ? "mtu" : "vlan";
  return Result(first, second, settings.garble == what, settings.garble == what + "-count");
}

}  // namespace

bool Configure(const std::string& dvs, const std::string& uplink, const Settings& settings) {
  if (!tree::GoodName(dvs) || !tree::GoodName(uplink) || !ParseVlans(settings.vlans)) return false;
  const tree::TreeLock lock;
  if (!tree::Exists(tree::SwitchDir(dvs) + "/meta.json")) return false;
  ::mkdir((tree::SwitchDir(dvs) + "/uplinks").c_str(), 0755);
  const JsonFile json(cJSON_CreateObject());
  SetJson(json.get(), "mtu", settings.mtu);
  SetJson(json.get(), "vlans", settings.vlans);
  SetJson(json.get(), "alias", settings.alias);
  SetJson(json.get(), "garble", settings.garble);
  return WriteJson(SettingsFile(dvs, uplink), json.get());
}

Settings SettingsOf(const std::string& dvs, const std::string& uplink) {
  const JsonFile json = ReadJson(SettingsFile(dvs, uplink));
  if (!json) return {};
  return {JsonNumber(json.get(), "mtu"), JsonString(json.get(), "vlans"), JsonString(json.get(), "alias"),
          JsonString(json.get(), "garble")};
}

std::string PortList(const std::string& dvs) {
  const auto ports = PortsOf(dvs);
  const auto count = static_cast<uint32_t>(ports.size());
  std::string value(reinterpret_cast<const char*>(&count), sizeof(count));
  for (const UplinkPort& port : ports) {
    std::string key = port.key.substr(0, DVS_PORT_KEY_SIZE - 1);
    key.resize(DVS_PORT_KEY_SIZE);
    value += key;
  }
  return value;
}

std::optional<std::string> PortValue(const std::string& dvs, const std::string& port,
                                     std::string_view property) {
  for (const UplinkPort& each : PortsOf(dvs)) {
    if (each.key != port) continue;
    const Settings settings = SettingsOf(dvs, each.uplink);
    if (property == kAlias) return (settings.alias.empty() ? each.uplink : settings.alias) + '\0';
    if (property == kMtuResult) return ResultOf(dvs, settings, true);
    if (property == kVlanResult) return ResultOf(dvs, settings, false);
  }
  return std::nullopt;
}

void BeginCheck(const std::string& dvs) {
  static_cast<void>(tree::WriteFile(CheckFile(dvs), std::to_string(NowMs())));
}

void EndCheck(const std::string& dvs) { static_cast<void>(tree::RemoveFile(CheckFile(dvs))); }

void SetCheckTime(int milliseconds) {
  static_cast<void>(tree::WriteFile(CheckTimeFile(), std::to_string(milliseconds)));
}

}  // namespace zem::sim::uplinks
