// Two tables of parameters, one for each tool.  A row says on which nodes the parameter exists, how its value
// is checked, and which arguments it becomes.

#include "app/pktcap/exporter/capture_parameters.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>

#include "framework/log/log.h"
#include "framework/node/platform_info.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "pktcap"};

using Host = CaptureParameters::Host;
using Arguments = std::vector<std::string>;
using Stop = const std::atomic<bool>*;

constexpr uint32_t kQub = 1;
constexpr uint32_t kEdge = 4;
constexpr uint32_t kAll = 6151;

constexpr int kNoVnic = 3;
constexpr int kNoKnlnic = 4;
constexpr int kNoHwnic = 5;
constexpr int kNoVdrPort = 6;
constexpr int kNoLogicalPort = 8;
constexpr int kNoFcPort = 9;
constexpr int kNoPnic = 10;
constexpr int kNoIfName = 11;
constexpr int kBadDirection = 25;

constexpr const char* kNotFound = "notfound";

enum class Id {
  kVnic,
  kKnlnic,
  kVdrPort,
  kHwnic,
  kDvfilter,
  kStage,
  kFcPort,
  kLPort,
  kPnic,
  kIfName,
  kDirection,
  kCore,
};

// The port of an object; empty when there is none.
std::string LookUp(const Host& host, const std::string& kind, const std::string& value, Stop stop) {
  std::string port;
  if (!FindSwitchPortId(host.tools, kind, value, &port, nullptr, stop)) return {};
  if (kind == "vnic") {
    ZLOG_INFO("Found vnic %s, matched switchport %s", value.c_str(), port.c_str());
  } else {
    ZLOG_INFO("Found %s %s, matched switchport %s", kind.c_str(), value.c_str(), port.c_str());
  }
  return port;
}

bool IsNumber(const std::string& value) {
  return !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
}

// A number may be a port of the switch or the name of a vNIC.
std::string LookUpVnic(const Host& host, const std::string& value, Stop stop) {
  if (IsNumber(value)) {
    std::string port = LookUp(host, "switchport", value, stop);
    if (!port.empty()) return port;
    ZLOG_INFO("The entity might not be switchport, try to search it as vnic");
  }
  return LookUp(host, "vnic", value, stop);
}

std::string OrNotFound(std::string port) { return port.empty() ? kNotFound : std::move(port); }

struct Word {
  std::string_view word;
  const char* argument;
};
constexpr std::array kStages = {Word{"pre", "0"}, Word{"post", "1"}};
constexpr std::array kDirections = {Word{"input", "0"}, Word{"output", "1"}, Word{"dual", "2"}};

template <size_t kSize>
const char* ArgumentOf(const std::array<Word, kSize>& words, const std::string& word) {
  const auto found =
      std::find_if(words.begin(), words.end(), [&word](const Word& w) { return w.word == word; });
  return found == words.end() ? nullptr : found->argument;
}

struct CaptureRow {
  Id id;
  const char* name;
  const char* description;
  uint32_t nodes;
  int (*check)(const Host& host, const std::string& value, Stop stop);  // null: any value is good
  void (*emit)(const Host& host, const std::string& value, Stop stop, Arguments* arguments);  // null: none
};

template <int kError>
int CheckKind(const Host& host, const char* kind, const std::string& value, Stop stop) {
  return LookUp(host, kind, value, stop).empty() ? kError : kParameterGood;
}

int CheckDirection(const Host& host, const std::string& value, Stop) {
  if (ArgumentOf(kDirections, value) == nullptr) return kBadDirection;
  return value == "dual" && host.is_version_65 ? kBadDirection : kParameterGood;
}

int CheckIfName(const Host&, const std::string& value, Stop) {
  int index = 0;
  return FindIfIndex(value, &index) == 0 ? kParameterGood : kNoIfName;
}

void EmitInterface(const Host&, const std::string& value, Stop, Arguments* arguments) {
  arguments->insert(arguments->end(), {"interface", value});
}

constexpr std::array kCaptureRows = {
    CaptureRow{
        Id::kVnic, "vnic", "vnic, available only on QUB", kQub,
        [](const Host& host, const std::string& value, Stop stop) {
          return LookUpVnic(host, value, stop).empty() ? kNoVnic : kParameterGood;
        },
        [](const Host& host, const std::string& value, Stop stop, Arguments* arguments) {
          arguments->insert(arguments->end(), {"--switchport", OrNotFound(LookUpVnic(host, value, stop))});
        }},
    CaptureRow{Id::kKnlnic, "knlnic", "knlnic, available only on QUB", kQub,
               [](const Host& host, const std::string& value, Stop stop) {
                 return CheckKind<kNoKnlnic>(host, "knl", value, stop);
               },
               [](const Host&, const std::string& value, Stop, Arguments* arguments) {
                 arguments->insert(arguments->end(), {"--knl", value});
               }},
    CaptureRow{Id::kVdrPort, "vdrport", "vdrport, availble only on QUB", kQub,
               [](const Host& host, const std::string& value, Stop stop) {
                 return CheckKind<kNoVdrPort>(host, "vdrport", value, stop);
               },
               [](const Host& host, const std::string& value, Stop stop, Arguments* arguments) {
                 arguments->insert(arguments->end(),
                                   {"--switchport", OrNotFound(LookUp(host, "vdrport", value, stop))});
               }},
    CaptureRow{Id::kHwnic, "hwnic", "uplink, available only on QUB", kQub,
               [](const Host& host, const std::string& value, Stop stop) {
                 return CheckKind<kNoHwnic>(host, "uplink", value, stop);
               },
               [](const Host&, const std::string& value, Stop, Arguments* arguments) {
                 arguments->insert(arguments->end(), {"-K", "--uplink", value});
               }},
    CaptureRow{Id::kDvfilter, "dvfilter", "dvfilter, available only on QUB", kQub, nullptr,
               [](const Host&, const std::string& value, Stop, Arguments* arguments) {
                 arguments->insert(arguments->end(), {"--dvfilter", value});
               }},
    CaptureRow{Id::kStage, "stage", "stage, available only on QUB", kQub, nullptr,
               [](const Host&, const std::string& value, Stop, Arguments* arguments) {
                 if (const char* const stage = ArgumentOf(kStages, value)) {
                   arguments->insert(arguments->end(), {"--stage", stage});
                 }
               }},
    CaptureRow{Id::kFcPort, "fcport", "fcport, available only on ENS switch", kQub,
               [](const Host& host, const std::string& value, Stop stop) {
                 return CheckKind<kNoFcPort>(host, "fcport", value, stop);
               },
               [](const Host&, const std::string& value, Stop, Arguments* arguments) {
                 arguments->insert(arguments->end(), {"--fcport", value});
               }},
    CaptureRow{Id::kLPort, "lport", "lport, logical port", kAll,
               [](const Host& host, const std::string& value, Stop stop) {
                 return CheckKind<kNoLogicalPort>(host, "dvsport", value, stop);
               },
               [](const Host& host, const std::string& value, Stop stop, Arguments* arguments) {
                 arguments->insert(arguments->end(),
                                   {"--switchport", OrNotFound(LookUp(host, "dvsport", value, stop))});
               }},
    CaptureRow{Id::kPnic, "pnic", "pnic, available only on Edge", kEdge,
               [](const Host&, const std::string&, Stop) { return kNoPnic; }, &EmitInterface},
    CaptureRow{Id::kIfName, "ifname", "ifname, available only on Edge", kEdge, &CheckIfName, &EmitInterface},
    CaptureRow{Id::kDirection, "dir", "direction of traffic", kAll, &CheckDirection,
               [](const Host&, const std::string& value, Stop, Arguments* arguments) {
                 arguments->insert(arguments->end(), {"--dir", ArgumentOf(kDirections, value)});
               }},
    CaptureRow{Id::kCore, "core", "core, available only on Edge", kEdge, nullptr, nullptr},
};

struct FilterRow {
  const char* name;
  const char* description;
  uint32_t nodes;
  std::array<const char*, 3> words;  // before the value; null: no more
};

// In the order of the expression: a VLAN changes where the fields behind it are looked for, and so does a
// tunnel for those inside.  Words of the caller's own come first, because an "or" in them binds to the left.
constexpr std::array kFilterRows = {
    FilterRow{"passthrough", "pass other params directly to the pktcap-uw/tcpdump process", kAll, {}},
    FilterRow{"vlan", "vlan id", kAll, {"vlan"}},
    FilterRow{"ethtype", "eth type, present in hex", kAll, {"ether", "proto"}},
    FilterRow{"mac", "eth mac, present in hex", kAll, {"ether", "host"}},
    FilterRow{"srcmac", "source eth mac, present in hex", kAll, {"ether", "src"}},
    FilterRow{"dstmac", "destination eth mac, present in hex", kAll, {"ether", "dst"}},
    FilterRow{"ip", "ipv4 address", kAll, {"ip", "host"}},
    FilterRow{"srcip", "source ipv4 address", kAll, {"ip", "src"}},
    FilterRow{"dstip", "destination ipv4 address", kAll, {"ip", "dst"}},
    FilterRow{"ipproto", "ipv4 protocol", kAll, {"ip", "proto"}},
    FilterRow{"ip6", "ipv6 address", kAll, {"ip6", "host"}},
    FilterRow{"srcip6", "source ipv6 address", kAll, {"ip6", "src"}},
    FilterRow{"dstip6", "destination ipv6 address", kAll, {"ip6", "dst"}},
    FilterRow{"ipproto6", "ipv6 protocol", kAll, {"ip6", "proto"}},
    FilterRow{"port", "tcp port", kAll, {"tcp", "port"}},
    FilterRow{"srcport", "tcp source port", kAll, {"tcp", "src", "port"}},
    FilterRow{"dstport", "tcp destination port", kAll, {"tcp", "dst", "port"}},
    FilterRow{"vni", "vni, virtual network identity", kQub, {"geneve", "vni"}},
};

template <class Rows>
auto FindRow(const Rows& rows, const std::string& name, uint32_t node_kind) {
  const auto found = std::find_if(rows.begin(), rows.end(), [&](const auto& row) {
    return name == row.name && (row.nodes & node_kind) != 0;
  });
  return found == rows.end() ? nullptr : &*found;
}

}  // namespace

CaptureParameters::Host CaptureParameters::Host::Own() {
  Host host;
  host.node_kind = GetNodeType();
  host.is_version_65 = IsVersion65();
  return host;
}

bool CaptureParameters::Exists(const std::string& name, uint32_t node_kind) {
  return FindRow(kCaptureRows, name, node_kind) != nullptr ||
         FindRow(kFilterRows, name, node_kind) != nullptr;
}

int CaptureParameters::Set(const std::string& name, const std::string& value, Stop stop) {
  if (!Exists(name, host_.node_kind)) return kParameterUnknown;
  const CaptureRow* const row = FindRow(kCaptureRows, name, host_.node_kind);
  if (row != nullptr && row->check != nullptr) {
    if (const int error = row->check(host_, value, stop); error != kParameterGood) return error;
  }
  values_[name] = value;
  if (row != nullptr && row->id == Id::kDirection) incoming_ = value != "output";
  if (name == "vni")
    vni_ = static_cast<uint32_t>(std::min(std::strtoul(value.c_str(), nullptr, 0), 0xfffffffful));
  return kParameterGood;
}

Arguments CaptureParameters::CaptureArguments(Stop stop) const {
  Arguments arguments;
  if (!host_.is_version_65) arguments.emplace_back("-e");
  for (const CaptureRow& row : kCaptureRows) {
    const auto value = values_.find(row.name);
    if (value != values_.end() && row.emit != nullptr) row.emit(host_, value->second, stop, &arguments);
  }
  return arguments;
}

Arguments CaptureParameters::FilterArguments() const {
  Arguments arguments;
  for (const FilterRow& row : kFilterRows) {
    const auto value = values_.find(row.name);
    if (value == values_.end()) continue;
    if (!arguments.empty()) arguments.emplace_back("and");
    for (const char* const word : row.words) {
      if (word != nullptr) arguments.emplace_back(word);
    }
    arguments.push_back(value->second);
  }
  return arguments;
}

}  // namespace zem::Tarvik
