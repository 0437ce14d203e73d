#include "app/zema/migration/migration_file.h"

#include <algorithm>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <charconv>
#include <sstream>
#include <stdexcept>

#include "app/zema/proxy/lum_reply.h"
#include "framework/log/log.h"
#include "framework/process/atomic_file.h"
#include "framework/process/error_text.h"
#include "framework/process/own_folder.h"
#include "platform/core/clock.h"

namespace zem::zema {
namespace {

namespace pt = boost::property_tree;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kRequestId = "request_id";
constexpr const char* kVmsRequestId = "vms_request_id";
// The outcome of each file; these keys are in addition to those that the tool reads.
constexpr const char* kRequestResult = "request_result";
constexpr const char* kVmsRequestResult = "vms_request_result";
constexpr const char* kOwnFailure = "Failed";
constexpr const char* kResult = "result";
constexpr const char* kSuccess = "Success";
constexpr const char* kFailed = "Failed; error messages:\n";
constexpr const char* kOpenFolder = "others may write in its folder";

// The parser is recursive, one call for each level.
constexpr int kDeepest = 16;

[[noreturn]] void Miss(const std::string& key, const std::string& reason) {
  throw std::runtime_error("Failed to get [" + key + "], ptree_error: " + reason);
}

// A name is a key as it stands, never a path.
const pt::ptree* Find(const pt::ptree& node, const char* key) {
  const auto found = node.find(key);
  return found == node.not_found() ? nullptr : &found->second;
}

std::string Text(const pt::ptree& node, const char* key) {
  const pt::ptree* const found = Find(node, key);
  if (found == nullptr) return {};
  if (!found->empty()) Miss(key, "a text is expected");
  return found->data();
}

std::string Required(const pt::ptree& node, const char* key) {
  const std::string text = Text(node, key);
  if (text.empty()) Miss(key, std::string("No such node (") + key + ")");
  return text;
}

bool Flag(const pt::ptree& node, const char* key, bool otherwise) {
  const pt::ptree* const found = Find(node, key);
  if (found == nullptr) return otherwise;
  const std::string text = Text(node, key);
  if (text == "true" || text == "1") return true;
  if (text == "false" || text == "0") return false;
  Miss(key, "conversion of data to type \"bool\" failed");
}

uint32_t Number(const pt::ptree& node, const char* key) {
  const std::string text = Required(node, key);
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) {
    Miss(key, "conversion of data to type \"32-bit\" failed");
  }
  return number;
}

std::optional<uint32_t> OptionalNumber(const pt::ptree& node, const char* key) {
  if (Find(node, key) == nullptr) return std::nullopt;
  return Number(node, key);
}

template <class Take>
void EachOf(const pt::ptree& node, const char* key, const Take& take) {
  const pt::ptree* const list = Find(node, key);
  if (list == nullptr) return;
  if (list->empty() && !list->data().empty()) Miss(key, "a list is expected");
  for (const auto& [name, entry] : *list) take(name, entry);
}

struct TextKey {
  const char* key;
  std::string MigrationVnic::*field;
};
constexpr TextKey kVnicTexts[] = {
    {"ping_ip", &MigrationVnic::ping_ip},
    {"ip", &MigrationVnic::ip},
    {"group_id", &MigrationVnic::group_id},
    {"port_group_name", &MigrationVnic::port_group_name},
    {"logical_switch_id", &MigrationVnic::logical_switch_id},
    {"logical_port_id", &MigrationVnic::logical_port_id},
    {"vif_id", &MigrationVnic::vif_id},
    {"transport_zone_id", &MigrationVnic::transport_zone_id},
    {"uplink_teaming_name", &MigrationVnic::uplink_teaming_name},
    {"init_state", &MigrationVnic::init_state},
};

MigrationVnic VnicOf(const pt::ptree& node) {
  MigrationVnic vnic;
  vnic.vnic_id = Required(node, "vnic_id");
  for (const auto& [key, field] : kVnicTexts) vnic.*field = Text(node, key);
  vnic.is_vtep = Flag(node, "is_vtep", false);
  vnic.vtep_label = OptionalNumber(node, "vtep_label");
  vnic.vlan = OptionalNumber(node, "logical_switch_vlan_id");
  if (const std::string mac = Text(node, "mac"); !mac.empty()) {
    vnic.mac = ParseMac(mac);
    if (!vnic.mac) Miss("mac", "[" + mac + "] is no address");
  }
  EachOf(node, "vlan_trunk_ranges", [&](const std::string&, const pt::ptree& range) {
    vnic.vlan_trunk_ranges.emplace_back(Number(range, "start"), Number(range, "end"));
  });
  EachOf(node, "extra_configs", [&](const std::string& name, const pt::ptree& entry) {
    constexpr const char* kPair = "config_pair";
    const pt::ptree* const pair = name == kPair ? &entry : Find(entry, kPair);
    if (pair == nullptr) Miss(kPair, std::string("No such node (") + kPair + ")");
    vnic.extra_configs[Required(*pair, "key")] = Text(*pair, "value");
  });
  return vnic;
}

MigrationHostSwitch HostSwitchOf(const pt::ptree& node) {
  MigrationHostSwitch host_switch;
  host_switch.id = Text(node, "host_switch_id");
  host_switch.name = Text(node, "host_switch_name");
  host_switch.mgmt_knl_ping_ip = Text(node, "mgmt_knl_ping_ip");
  host_switch.dvs_or_pln_name = Text(node, "dvs_or_pln_name");
  EachOf(node, "vnics",
         [&](const std::string&, const pt::ptree& vnic) { host_switch.vnics.push_back(VnicOf(vnic)); });
  EachOf(node, "pnics", [&](const std::string&, const pt::ptree& pnic) {
    host_switch.pnics.push_back({Required(pnic, "device_name"), Text(pnic, "uplink_name")});
  });
  return host_switch;
}

bool TooDeep(std::string_view text) {
  int depth = 0;
  bool in_text = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_text) {
      if (c == '\\') ++i;
      if (c == '"') in_text = false;
    } else if (c == '"') {
      in_text = true;
    } else if (c == '{' || c == '[') {
      if (++depth > kDeepest) return true;
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return false;
}

constexpr const char* kBlanks = " \t\r\n";

// The parser accepts a text of any type; here only an object is accepted.
void ParseObject(const std::string& text, pt::ptree* tree) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos || text[first] != '{') throw std::runtime_error("an object is expected");
  if (TooDeep(text)) throw std::runtime_error("nested too deeply");
  std::istringstream in(text);
  pt::read_json(in, *tree);
}

std::string IdOfNow() {
  const auto now = Clock::Process().WallNow().time_since_epoch();
  return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

}  // namespace

MigrationFile::Read MigrationFile::Parse(const std::string& text, MigrationRequest* request,
                                         std::string* error) {
  pt::ptree tree;
  MigrationRequest read;
  try {
    ParseObject(text, &tree);
    read.request_id = Text(tree, kRequestId);
  } catch (const std::exception& e) {
    *error = e.what();
    return Read::kUnreadable;
  }
  request->request_id = read.request_id;
  try {
    if (Find(tree, "migrate_to_ndvs") == nullptr) Miss("migrate_to_ndvs", "No such node (migrate_to_ndvs)");
    read.in = Flag(tree, "migrate_to_ndvs", false);
    read.pre_create_dvports = Flag(tree, "pre_create_dvports", true);
    if (Find(tree, "host_switches") == nullptr) Miss("host_switches", "No such node (host_switches)");
    EachOf(tree, "host_switches", [&](const std::string&, const pt::ptree& host_switch) {
      read.host_switches.push_back(HostSwitchOf(host_switch));
    });
  } catch (const std::exception& e) {
    *error = e.what();
    return Read::kIncomplete;
  }
  *request = std::move(read);
  return Read::kDone;
}

MigrationFile::Read MigrationFile::Load(MigrationRequest* request, std::string* error) {
  if (OthersWriteBeside(path_)) {
    *error = path_ + ": " + kOpenFolder;
    return Read::kUnreadable;
  }
  std::string text;
  const int result = ReadFileWhole(path_, kLongest, &text);
  if (result == ENOENT || (result == 0 && text.find_first_not_of(kBlanks) == std::string::npos)) {
    return Read::kNone;
  }
  if (result != 0) {
    *error = path_ + " json_parser_error: " + Tarvik::Util::GetErrMsg(result);
    return Read::kUnreadable;
  }
  const Read read = Parse(text, request, error);
  if (read == Read::kUnreadable) {
    *error = path_ + " json_parser_error: " + *error;
    return read;
  }
  if (!request->request_id.empty()) {
    ZLOG_INFO("[%s] %s=%s", "MigrationFile", kRequestId, request->request_id.c_str());
    return read;
  }
  request->request_id = IdOfNow();
  const Outcome written = WriteId(text, request->request_id);
  if (written) return read;
  *error = "Failed to write to file " + path_ + ", error: " + written.error();
  return Read::kNotIdentified;
}

// The id is inserted at the front, so that every other byte stays unchanged.
Outcome MigrationFile::WriteId(const std::string& text, const std::string& id) const {
  const size_t open = text.find('{');
  const size_t next = text.find_first_not_of(kBlanks, open + 1);
  const bool alone = next != std::string::npos && text[next] == '}';
  const std::string member = std::string("\"") + kRequestId + "\": \"" + id + (alone ? "\"" : "\",");
  const std::string whole = text.substr(0, open + 1) + member + text.substr(open + 1);
  std::string error;
  if (WriteFileWhole(path_, whole, &error) == FileWrite::kDone) return Outcome::Done();
  return Outcome::Failed(std::move(error));
}

bool ReadMigrationResult(const std::string& path, MigrationResult* result) {
  constexpr const char* kName = "readKnlMigrationResultFile";
  if (OthersWriteBeside(path)) {
    ZLOG_WARN("[%s] %s: %s", kName, path.c_str(), kOpenFolder);
    return false;
  }
  std::string text;
  const int failed = ReadFileWhole(path, MigrationFile::kLongest, &text);
  if (failed == ENOENT || (failed == 0 && text.empty())) {
    ZLOG_INFO("[%s] File %s is empty or does not exist", kName, path.c_str());
    return false;
  }
  if (failed != 0) {
    ZLOG_WARN("[%s] Failed to read file [%s]: error [%s].\n", kName, path.c_str(),
              Tarvik::Util::GetErrMsg(failed).c_str());
    return false;
  }
  pt::ptree tree;
  try {
    ParseObject(text, &tree);
    result->request_id = Text(tree, kRequestId);
    result->vms_request_id = Text(tree, kVmsRequestId);
    const std::string both = Text(tree, kResult);
    // The file may be from an older agent, which wrote a single outcome.
    const auto succeeded = [&](const char* name) {
      const std::string own = Text(tree, name);
      return (own.empty() ? both : own) == kSuccess;
    };
    result->succeeded = succeeded(kRequestResult);
    result->vms_succeeded = succeeded(kVmsRequestResult);
  } catch (const std::exception& e) {
    ZLOG_WARN("[%s] Failed to parse file [%s]: error [%s].\n", kName, path.c_str(), e.what());
    *result = {};
    return false;
  }
  return true;
}

void SaveMigrationResult(const std::string& path, const MigrationResult& ids,
                         const std::vector<std::string>& errors) {
  std::string outcome = errors.empty() ? kSuccess : kFailed;
  for (size_t i = 0; i < errors.size(); ++i) outcome += (i == 0 ? "" : "\n") + errors[i];
  pt::ptree tree;
  tree.put(kRequestId, ids.request_id);
  tree.put(kVmsRequestId, ids.vms_request_id);
  tree.put(kResult, outcome);
  tree.put(kRequestResult, ids.succeeded ? kSuccess : kOwnFailure);
  tree.put(kVmsRequestResult, ids.vms_succeeded ? kSuccess : kOwnFailure);
  std::ostringstream out;
  std::string error;
  try {
    pt::write_json(out, tree);
    if (OthersWriteBeside(path)) {
      error = kOpenFolder;
    } else if (WriteFileWhole(path, out.str(), &error) == FileWrite::kDone) {
      return;
    }
  } catch (const pt::json_parser_error& e) {
    error = e.what();
  }
  ZLOG_ERROR("44061", "[%s] Failed to write to file [%s]: error [%s].\n", "SaveKnlMigrationResultToFile",
             path.c_str(), error.c_str());
}

}  // namespace zem::zema
