#include "app/zema/ports/port_ops_manager.h"

#include <algorithm>
#include <cstring>
#include <set>

#include "app/zema/hostlib/dvs_data.h"
#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/port_walk.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/ports/port_file.h"
#include "app/zema/ports/vif_index.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/proxy/lum_commands.h"
#include "framework/log/log.h"
#include "platform/wft/workflow_util.h"

// What the manager knows (zones, waiting VIFs), single properties, and port files.  How ports are made, found
// and cleared is in port_ops_create.cc, port_ops_find.cc and port_ops_clear.cc.

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr int kClearTries = 3;
constexpr size_t kSiteConfigTokens = 4;
constexpr const char* kDone = "true";

std::string_view TextZ(const std::string& text) { return {text.c_str(), text.size() + 1}; }

void Tell(std::string* error, std::string text) {
  if (error != nullptr) *error = std::move(text);
}

}  // namespace

PortOpsManager::PortOpsManager(SwitchLibrary& library, LumCommands& lum, HostId host_id)
    : library_(library), lum_(lum), host_id_(std::move(host_id)), vif_index_(std::make_unique<VifIndex>()) {}
PortOpsManager::~PortOpsManager() = default;

bool PortOpsManager::CacheTzToDvsMapping() {
  std::string reply;
  size_t skipped = 0;
  const int result = lum_.InvokeCommand("GetTzToDvsMapping()", "", &reply);
  const auto list = result == LumCommands::kSucceeded ? ParseTzToDvs(reply, &skipped) : std::nullopt;
  if (!list) {
    ZLOG_ERROR("44205", "[PortOp] GetTzToDvsMapping reply: [%s]", reply.c_str());
    zones_unanswered_ = true;
    return false;
  }
  if (skipped != 0) ZLOG_WARN("[PortOp] GetTzToDvsMapping: %zu entries were skipped", skipped);
  SetTzToDvsCache(*list);
  return true;
}

void PortOpsManager::SetTzToDvsCache(const std::vector<TzDvs>& list) {
  std::map<std::string, HostSwitchInfo> map;
  for (const TzDvs& entry : list) map[entry.zone] = {entry.dvs, entry.kind};
  const std::vector<std::string> before = Switches();
  tz_to_dvs_.Replace(std::move(map));
  zones_unanswered_ = false;
  if (Switches() != before) vif_index_->Invalidate();
}

// A host that did not answer when it was asked for its zones knows more than this object.
std::optional<HostSwitchInfo> PortOpsManager::FindZone(const std::string& zone) {
  for (;;) {
    const auto map = tz_to_dvs_.Get();
    if (const auto found = map->find(zone); found != map->end()) return found->second;
    if (!zones_unanswered_ || !CacheTzToDvsMapping()) return std::nullopt;
  }
}

std::string PortOpsManager::GetDvsIdForTz(const std::string& zone) {
  if (zone.empty()) {
    ZLOG_INFO("[PortOp] Ignoring to lookup dvsId for a null TZ id");
    return {};
  }
  if (auto found = FindZone(zone)) return std::move(found->dvs);
  ZLOG_ERROR("44205", "[PortOp] dvs id for tzId [%s] was not found", zone.c_str());
  return {};
}

HostSwitchInfo PortOpsManager::GetHostSwitchInfoForTz(const std::string& zone) {
  if (auto found = FindZone(zone)) return *std::move(found);
  ZLOG_INFO("[PortOp] Host switch info with uuid for tzId [%s] was not found", zone.c_str());
  return {};
}

std::vector<std::string> PortOpsManager::Switches() const {
  const auto map = tz_to_dvs_.Get();
  std::set<std::string> ids;
  for (const auto& [zone, info] : *map) ids.insert(info.dvs);
  return {ids.begin(), ids.end()};
}

bool PortOpsManager::GetVifsForSiteConfig() {
  std::string reply;
  if (lum_.InvokeCommand("GetVifUuidsForFetchingSiteConfig()", "", &reply) != LumCommands::kSucceeded) {
    ZLOG_ERROR("44205", "[PortOp] GetVifUuidsForFetchingSiteConfig failed: [%s]", reply.c_str());
    return false;
  }
  if (reply.empty()) {
    ZLOG_INFO("[PortOp] No ports found with pending attachment state to process");
    return true;
  }
  for (const std::string_view entry : SplitTokens(reply, '|')) {
    const auto tokens = SplitTokens(entry, ':');
    if (tokens.size() != kSiteConfigTokens || tokens[0].empty()) continue;
    auto request = std::make_shared<VifRequest>();
    request->op_code = VifRequest::kFetchSiteConfig;
    request->vif_id = tokens[0];
    request->ls_id = tokens[1];
    request->port_id = tokens[2];
    request->zone_id = tokens[3];
    AddVifForSiteConfig(std::string(tokens[0]), std::move(request));
  }
  return true;
}

void PortOpsManager::AddVifForSiteConfig(const std::string& vif, std::shared_ptr<const VifRequest> request) {
  vifs_to_fetch_site_config_.Set(vif, std::move(request));
  ZLOG_INFO("[PortOp] Added VIF [%s] to the list to fetch site config", vif.c_str());
}

void PortOpsManager::RemoveVifForSiteConfig(const std::string& vif) {
  if (!vifs_to_fetch_site_config_.Remove(vif)) return;
  ZLOG_INFO("[PortOp] Removed VIF [%s] from the list to fetch site config", vif.c_str());
}

std::shared_ptr<const VifRequest> PortOpsManager::LookupVifRequest(const std::string& vif) const {
  const auto map = vifs_to_fetch_site_config_.Get();
  const auto found = map->find(vif);
  return found == map->end() ? nullptr : found->second;
}

std::shared_ptr<const std::map<std::string, std::shared_ptr<const VifRequest>>>
PortOpsManager::VifsForSiteConfig() const {
  return vifs_to_fetch_site_config_.Get();
}

int PortOpsManager::SetPortExtraConfig(const std::string& dvs, const std::string& port,
                                       const std::string& key, const std::string& value, std::string* error) {
  if (key == port_props::kLogicalPortId) {
    std::string stored;
    if (library_.PortTextGet(dvs, port, key.c_str(), &stored) == 0) {
      if (stored == value) {
        ZLOG_INFO("Port %s already has the desired attribute configured", port.c_str());
        return 0;
      }
      ZLOG_INFO("Port %s has stale logicalPort ID %s, removing stale value", port.c_str(), stored.c_str());
      if (ClearPortExtraConfig(dvs, port, key, error) < 0) return -1;
    }
  }
  std::optional<VifIndex::Writing> writing;
  if (key == port_props::kExternalId) writing.emplace(*vif_index_, dvs, port, value);
  const uint32_t result = library_.PortDataSet(dvs, port, key.c_str(), TextZ(value));
  if (result == 0 && writing) writing->Done();
  if (result == 0) return 0;
  const std::string text = SwitchErrorText(result);
  ZLOG_ERROR("44205", "[PortOp] Port set for extraConfig property [%s] operation failed, error code [%s]",
             key.c_str(), text.c_str());
  Tell(error, "Failed to set property " + key + " of port " + port + ": " + text);
  return -1;
}

int PortOpsManager::ClearPortExtraConfig(const std::string& dvs, const std::string& port,
                                         const std::string& key, std::string* error) {
  std::string text;
  for (int tries = 0; tries < kClearTries; ++tries) {
    const uint32_t result = library_.PortDataClear(dvs, port, key.c_str());
    if ((result == 0 || result == kSwitchNotFound) && key == port_props::kExternalId) {
      vif_index_->Forget(dvs, port);
    }
    if (result == 0) {
      ZLOG_INFO("[PortOp] Cleared [%s] from port [%s] successfully", key.c_str(), port.c_str());
      return 0;
    }
    if (result == kSwitchNotFound) {
      ZLOG_INFO("[PortOp] Property [%s] is not found on the port [%s] to clear", key.c_str(), port.c_str());
      return 1;
    }
    text = SwitchErrorText(result);
    ZLOG_ERROR("44208", "[PortOp] Failed to clear config property [%s] on port [%s], error [%s]. Retrying",
               key.c_str(), port.c_str(), text.c_str());
  }
  ZLOG_ERROR("44208", "[PortOp] Failed [%d] times to clear config property [%s] on port [%s], error [%s].",
             kClearTries, key.c_str(), port.c_str(), text.c_str());
  Tell(error, "Failed to clear property " + key + " of port " + port + ": " + text);
  return -1;
}

uint32_t PortOpsManager::GetPortExtraConfig(const std::string& dvs, const std::string& port,
                                            const std::string& key, std::string* value) {
  return library_.PortTextGet(dvs, port, key.c_str(), value);
}

uint32_t PortOpsManager::GetHostConfigProp(const std::string& dvs, const std::string& property,
                                           std::string* value) {
  LibraryBuffer bytes;
  const uint32_t result = library_.HostPropGet(dvs, property.c_str(), &bytes);
  if (result == 0) *value = bytes.text();
  return result;
}

int PortOpsManager::ClearPortOpaqueData(const std::string& dvs, const std::string& port) {
  int result = 0;
  for (const char* const key : port_props::kOpaqueData) {
    if (ClearPortExtraConfig(dvs, port, key) < 0) result = -1;
  }
  return result;
}

int PortOpsManager::ClearAllPortOpaqueData(const std::string& dvs) {
  int result = 0;
  PortWalk walk(library_, {dvs});
  walk.Visit([&](const std::string& id, const std::string& port) {
    if (ClearPortOpaqueData(id, port) != 0) result = -1;
    return false;
  });
  return walk.failed() == 0 ? result : -1;
}

int PortOpsManager::UpdateDvportRpcOp(const std::string& dvs, const std::string& port,
                                      const std::string& rpc_op, const std::string& rpc_done,
                                      std::string* error) {
  const auto span = wft::WorkflowUtil::StartChildSpan("PortOpsManager.UpdateDvportRpcOp", wft::kTraceInfo);
  wft::WorkflowUtil::SetCurSpanTag("dvsId", dvs);
  wft::WorkflowUtil::SetCurSpanTag("portKey", port);
  wft::WorkflowUtil::SetCurSpanTag("rpcOp", rpc_op);
  wft::WorkflowUtil::SetCurSpanTag("rpcDone", rpc_done);
  if (dvs.empty() || port.empty() || rpc_op.empty() || rpc_done.empty()) {
    Tell(error, "No switch, port or operation given");
    return -1;
  }
  std::string stored;
  const uint32_t result = library_.PortTextGet(dvs, port, port_props::kPortOpPending, &stored);
  if (result == kSwitchNotFound) {
    ZLOG_INFO("[PortOp] No RPC Op stored on port");
  } else if (result == 0) {
    ZLOG_INFO("[PortOp] Stored RPC Op is:[%s]", stored.c_str());
  } else {
    const std::string text = SwitchErrorText(result);
    ZLOG_ERROR("44207", "[PortOp] Failed to read RPC Op of port [%s], error code [%s]", port.c_str(),
               text.c_str());
    Tell(error, "Failed to read the pending operation of port " + port + ": " + text);
    return -1;
  }
  const bool has = result == 0 && stored == rpc_op;
  // A file that could not be written last time is behind its port.
  const bool file_has = FileText(dvs, port, port_props::kPortOpPending) == rpc_op;
  std::string reason;
  if (rpc_done == kDone) {
    if (!has && !file_has) return 0;
    if (has && ClearPortExtraConfig(dvs, port, port_props::kPortOpPending, &reason) < 0) {
      ZLOG_ERROR("44208", "[PortOp] Error clearing rpcOp:[%s] error:[%s]", rpc_op.c_str(), reason.c_str());
      Tell(error, std::move(reason));
      return -1;
    }
  } else {
    if (has && file_has) return 0;
    if (!has && SetPortExtraConfig(dvs, port, port_props::kPortOpPending, rpc_op, &reason) != 0) {
      ZLOG_ERROR("44205", "[PortOp] Error storing rpcOp:[%s] error:[%s]", rpc_op.c_str(), reason.c_str());
      Tell(error, std::move(reason));
      return -1;
    }
  }
  if (SaveAgain("UpdateDvportRpcOp", dvs, port) == 0) return 0;
  Tell(error, "Failed to save the file of port " + port);
  return -1;
}

std::string PortOpsManager::PersistPath(const std::string& dvs, const std::string& port) const {
  std::string path;
  const uint32_t result = library_.PortTextGet(dvs, port, port_props::kPersistPath, &path);
  if (result != 0 && result != kSwitchNotFound) {
    ZLOG_ERROR("44207", "[PortOp] Failed to read the file path of port [%s], error code [%s]", port.c_str(),
               SwitchErrorText(result).c_str());
  }
  return path;
}

std::optional<std::string> PortOpsManager::FileText(const std::string& dvs, const std::string& port,
                                                    const char* property) const {
  const std::string path = PersistPath(dvs, port);
  std::string bytes;
  DvsData data(library_);
  if (path.empty() || ReadPortFile(path, &bytes) != 0 || data.Deserialize(bytes) != 0) return std::nullopt;
  const auto text = data.Text(property);
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

int PortOpsManager::SaveAgain(const char* operation, const std::string& dvs, const std::string& port,
                              const char* without) {
  const std::string path = PersistPath(dvs, port);
  if (path.empty()) return 0;
  if (IsOfAnotherHost(path, dvs, port)) {
    ZLOG_INFO("[PortOp] %s: the file of port [%s] is the one of the host that its VM has gone to", operation,
              port.c_str());
    return 0;
  }
  if (SavePortDataFile(path, dvs, port, without) == 0) return 0;
  ZLOG_ERROR("44212", "[PortOp] %s: Error saving port file for port:[%s]", operation, port.c_str());
  return -1;
}

// Both hosts of a VM that moves see its folder, and the port may bear the same name on both.  The file tells
// who has saved it last.  Another host's is from before the VM came here when this one has never saved its
// own port, and then the cookies decide, by the hosts' clocks: who has made the port last has the younger
// one.
bool PortOpsManager::IsOfAnotherHost(const std::string& path, const std::string& dvs,
                                     const std::string& port) const {
  std::string bytes;
  DvsData file(library_);
  if (ReadPortFile(path, &bytes) != 0 || file.Deserialize(bytes) != 0) return false;
  const auto cookie = [](std::string_view value) {
    uint32_t seconds = 0;
    if (value.size() == sizeof(seconds)) std::memcpy(&seconds, value.data(), sizeof(seconds));
    return seconds;
  };
  const auto saved_by = file.Text(port_props::kSavedBy);
  if (const auto id = host_id_(); id && saved_by) {
    if (*saved_by == *id) return false;
    std::string mark;
    if (library_.PortTextGet(dvs, port, port_props::kSavedBy, &mark) == 0 && mark == *id) return true;
  }
  LibraryBuffer own;
  const auto theirs = file.Bytes(port_props::kConnectId);
  if (!theirs || library_.PortDataGet(dvs, port, port_props::kConnectId, &own) != 0) return false;
  return cookie(*theirs) > cookie(own.bytes());
}

void PortOpsManager::TakeFile(const PortLocation& at) {
  const std::string path = PersistPath(at.dvs, at.port);
  // A failure is logged; the port is as it has to be.
  if (!path.empty() && IsOfAnotherHost(path, at.dvs, at.port)) {
    static_cast<void>(SaveNew(path, at.dvs, at.port));
  }
}

int PortOpsManager::SavePortDataFile(const std::string& path, const std::string& dvs, const std::string& port,
                                     const char* without) {
  const auto span = wft::WorkflowUtil::StartChildSpan("PortOpsManager.SavePortDataFile", wft::kTraceInfo);
  wft::WorkflowUtil::SetCurSpanTag("portFilePath", path);
  wft::WorkflowUtil::SetCurSpanTag("dvsId", dvs);
  wft::WorkflowUtil::SetCurSpanTag("dvpId", port);
  if (path.empty()) {
    ZLOG_ERROR("44212", "[PortOp] Port File Path is empty");
    return -1;
  }
  LibraryBuffer state;
  DvsData data(library_);
  const auto id = host_id_();
  bool marked = true;
  uint32_t result = library_.PersistentPortStateGet(dvs, port, &state);
  if (result == 0 && (without != nullptr || id)) {
    result = data.Deserialize(state.bytes());
    if (result == 0 && without != nullptr) result = data.Remove(without);
    if (result == 0 && id) {
      marked = data.Text(port_props::kSavedBy) == *id;
      if (!marked) result = data.UpdateText(port_props::kSavedBy, *id);
    }
    LibraryBuffer changed;
    if (result == 0) result = data.Serialize(&changed);
    if (result == 0) state = std::move(changed);
  }
  if (result != 0) {
    ZLOG_ERROR("44212", "[PortOp] Failed to get persistent data of port [%s], error code [%s]", port.c_str(),
               SwitchErrorText(result).c_str());
    return -1;
  }
  if (WritePortFile(path, state.bytes()) != 0) return -2;
  // A failure is logged; the file says it.
  if (!marked) static_cast<void>(SetPortExtraConfig(dvs, port, port_props::kSavedBy, *id));
  return 0;
}

int PortOpsManager::UpdateExtraConfigInPortDataFile(const std::string& path, const std::string& key,
                                                    const std::string* value) {
  const char* const operation = __func__;
  std::string bytes;
  const int failed = ReadPortFile(path, &bytes);
  if (failed != 0) {
    ZLOG_ERROR("44206", "[%s] Port [%s] file read failed: %d", operation, path.c_str(), failed);
    return -1;
  }
  DvsData data(library_);
  uint32_t result = data.Deserialize(bytes);
  if (result != 0) {
    ZLOG_ERROR("44206", "[%s] Deserilize port data from [%s] failed: %u", operation, path.c_str(), result);
    return -1;
  }
  result = value == nullptr ? data.Remove(key.c_str()) : data.UpdateText(key.c_str(), *value);
  ZLOG_INFO("[%s] in-memory port data [%s] of extraconfig [%s] status: [%u]", operation, path.c_str(),
            key.c_str(), result);
  if (result == kSwitchNotFound) return 0;
  if (result != 0) return -1;
  LibraryBuffer serialized;
  result = data.Serialize(&serialized);
  if (result != 0) {
    ZLOG_ERROR("44203", "[%s] port data serialize failed, error code [%u]", operation, result);
    return -1;
  }
  const int written = WritePortFile(path, serialized.bytes());
  if (written != 0) {
    ZLOG_ERROR("44212", "[%s] Error saving port data to file, error code [%u]", operation,
               static_cast<uint32_t>(written));
    return -1;
  }
  ZLOG_INFO("[%s] Saved port data to file successfully", operation);
  return 0;
}

}  // namespace zem::zema
