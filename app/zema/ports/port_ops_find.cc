#include <algorithm>

#include "app/zema/hostlib/dvs_data.h"
#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/port_walk.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/ports/port_file.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/ports/vif_index.h"
#include "framework/log/log.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

enum class Same { kYes, kNo, kUnknown };

// Whether a text property of the port has the value; kUnknown when it is not there or cannot be read.
Same Compare(const SwitchLibrary& library, const std::string& dvs, const std::string& port,
             const char* property, const std::string& value) {
  LibraryBuffer bytes;
  const uint32_t result = library.PortDataGet(dvs, port, property, &bytes);
  if (result == 0) return bytes.text() == value ? Same::kYes : Same::kNo;
  if (result == kSwitchNotFound) {
    ZLOG_DEBUG("[PortOp] Property [%s] is not found on port [%s]", property, port.c_str());
  } else {
    ZLOG_ERROR("44207", "[PortOp] Failed to get property [%s] of port [%s], error code [%s]", property,
               port.c_str(), SwitchErrorText(result).c_str());
  }
  return Same::kUnknown;
}

}  // namespace

bool PortOpsManager::Matches(const PortLocation& at, const std::string& vif, const std::string& ls) const {
  if (Compare(library_, at.dvs, at.port, port_props::kOpaqueNetworkId, ls) != Same::kYes) return false;
  ZLOG_INFO("[PortOp] Port [%s] on switch [%s] matched.", at.port.c_str(), at.dvs.c_str());
  return Compare(library_, at.dvs, at.port, port_props::kExternalId, vif) == Same::kYes;
}

// The index says where a VIF is without a look at all ports; the walk over them is what decides wherever the
// index has no answer, an old one, or more than one.

bool PortOpsManager::ReadVifs(const std::string* vif, std::vector<PortLocation>* holders) {
  VifIndex::Reading reading(*vif_index_);
  bool complete = true;
  std::string stored;
  PortWalk walk(library_, Switches());
  walk.Visit([&](const std::string& dvs, const std::string& port) {
    const uint32_t result = library_.PortTextGet(dvs, port, port_props::kExternalId, &stored);
    if (result == 0) {
      reading.Found(dvs, port, stored);
      if (vif != nullptr && stored == *vif) holders->push_back({dvs, port});
    } else if (result != kSwitchNotFound) {
      ZLOG_ERROR("44207", "[PortOp] Failed to get property [%s] of port [%s], error code [%s]",
                 port_props::kExternalId, port.c_str(), SwitchErrorText(result).c_str());
      complete = false;
    }
    return false;
  });
  complete = complete && walk.failed() == 0;
  if (complete) reading.Install();
  return complete;
}

std::vector<PortLocation> PortOpsManager::WalkForVif(const std::string& vif) {
  std::vector<PortLocation> holders;
  if (ReadVifs(&vif, &holders) && holders.empty()) vif_index_->SetNowhere(vif);
  return holders;
}

// Whether what the index has said of the VIF needs no confirmation by a walk: all its ports are known, as in
// the second half of a move, or it is on none.
bool PortOpsManager::KnowsAll(const std::optional<std::vector<PortLocation>>& holders,
                              const std::string& vif) const {
  return holders && (!holders->empty() || vif_index_->IsNowhere(vif));
}

bool PortOpsManager::RefreshVifIndex() {
  if (ReadVifs(nullptr, nullptr)) return true;
  vif_index_->Invalidate();
  return false;
}

void PortOpsManager::ForgetVifIndex() { vif_index_->Invalidate(); }

void PortOpsManager::DoubtVif(const std::string& vif) { vif_index_->Doubt(vif); }

std::optional<std::vector<PortLocation>> PortOpsManager::AskIndex(const std::string& vif,
                                                                  const std::string& except) {
  auto candidates = vif_index_->Lookup(vif);
  if (!candidates) return std::nullopt;
  std::vector<PortLocation> holders;
  if (candidates->empty()) return holders;
  const std::vector<std::string> switches = Switches();
  for (PortLocation& at : *candidates) {
    // Of a switch that no zone has, the walk would see no ports either.
    if (at.port == except || !std::binary_search(switches.begin(), switches.end(), at.dvs)) continue;
    if (Compare(library_, at.dvs, at.port, port_props::kExternalId, vif) != Same::kYes) {
      ZLOG_DEBUG("[PortOp] VIF [%s] is not on port [%s] as expected", vif.c_str(), at.port.c_str());
      return std::nullopt;
    }
    holders.push_back(std::move(at));
  }
  return holders;
}

std::vector<PortLocation> PortOpsManager::OfNetwork(const std::vector<PortLocation>& holders,
                                                    const std::string& ls, const char* then) const {
  std::vector<PortLocation> matching;
  for (const PortLocation& at : holders) {
    if (Compare(library_, at.dvs, at.port, port_props::kOpaqueNetworkId, ls) != Same::kYes) continue;
    ZLOG_INFO("[PortOp] Port [%s] on switch [%s] matched.%s", at.port.c_str(), at.dvs.c_str(), then);
    matching.push_back(at);
  }
  return matching;
}

bool PortOpsManager::FindOnSwitches(const std::string& vif, const std::string& ls, PortLocation* found) {
  if (const auto holders = AskIndex(vif, {}); KnowsAll(holders, vif)) {
    auto matching = OfNetwork(*holders, ls, "");
    if (matching.size() == 1) {
      *found = std::move(matching.front());
      return true;
    }
    if (matching.empty()) return false;
  }
  // Of several, the first of the walk is meant.
  auto matching = OfNetwork(WalkForVif(vif), ls, "");
  if (matching.empty()) return false;
  *found = std::move(matching.front());
  return true;
}

int PortOpsManager::FindPortByVifUuid(const std::string& vif, const std::string& ls, std::string* gcf_path,
                                      PortLocation* found, std::string* error) {
  const auto span = wft::WorkflowUtil::StartChildSpan("PortOpsManager.FindPortByVifUuid", wft::kTraceInfo);
  wft::WorkflowUtil::SetCurSpanTag(wft::tags::kVif, vif);
  wft::WorkflowUtil::SetCurSpanTag(wft::tags::kLogicalSwitch, ls);
  wft::WorkflowUtil::SetCurSpanTag("gcfPath", *gcf_path);
  if (vif.empty() || ls.empty()) {
    *error = "No VIF or logical switch given to find a port by";
    return -1;
  }
  if (FindOnSwitches(vif, ls, found)) {
    // A port without file has no directory to compare.
    const auto memory = VmDirectoryOfPortFile(PersistPath(found->dvs, found->port));
    const auto wanted = VmDirectoryOf(*gcf_path);
    if (memory && wanted && *memory != *wanted) {
      *error = "Failed to find required port. GCF path [" + *gcf_path +
               "] specified for the port is different from the gcf path [" + *memory + "] in memory";
      ZLOG_ERROR("44207", "[PortOp] %s", error->c_str());
      return -1;
    }
    if (memory && gcf_path->empty()) *gcf_path = *memory;
    ZLOG_INFO("[PortOp] Found required port. VIF[%s] PortKey:[%s] GCF Dir Path: [%s]", vif.c_str(),
              found->port.c_str(), memory.value_or("").c_str());
    return 0;
  }
  if (!gcf_path->empty()) {
    ZLOG_INFO("[PortOp] Searching through gcf dir");
    const auto directory = VmDirectoryOf(*gcf_path);
    if (!directory) {
      ZLOG_INFO(
          "[PortOp] Ignoring port [%s] restore from portData file for knl and crx ports with gcfPath: [%s]",
          vif.c_str(), gcf_path->c_str());
      *error = "Could not find port with VIF " + vif;
      return -1;
    }
    if (RestoreFromFiles(vif, ls, *directory, found)) return 0;
  }
  ZLOG_INFO("[PortOp] Could not find port/vif");
  *error = "Could not find port with VIF " + vif;
  return -1;
}

std::vector<PortLocation> PortOpsManager::PortsOfKey(const std::string& port) const {
  std::vector<PortLocation> found;
  if (port.empty()) return found;
  for (const std::string& dvs : Switches()) {
    if (library_.PortFind(dvs, port) == 0) found.push_back({dvs, port});
  }
  return found;
}

// Other ports of the VM may be connected, and the folder of a clone holds the files of the VM that it was
// made of, so a file is read before anything is done, and nothing but the port that is meant is touched.
bool PortOpsManager::RestoreFromFiles(const std::string& vif, const std::string& ls,
                                      const std::string& directory, PortLocation* found) {
  for (const PortFileEntry& file : PortFilesOf(directory)) {
    ZLOG_INFO("[PortOp] Reading portfile:[%s]", file.path.c_str());
    std::string bytes;
    if (const int failed = ReadPortFile(file.path, &bytes); failed != 0) {
      ZLOG_ERROR("44206", "[PortOp] Port [%s] file read failed:%d", file.port.c_str(), failed);
      continue;
    }
    DvsData data(library_);
    if (data.Deserialize(bytes) != 0) {
      ZLOG_ERROR("44206", "[PortOp] Port file [%s] holds no port", file.path.c_str());
      continue;
    }
    if (data.Text(port_props::kExternalId) != vif || data.Text(port_props::kOpaqueNetworkId) != ls) continue;
    const bool there = library_.PortFind(file.dvs, file.port) == 0;
    if (there ? !TakeBack(file, directory, vif, ls) : !AddFromFile(file, vif, bytes)) continue;
    ZLOG_INFO("[PortOp] Found required port. VIF[%s] PortKey:[%s]", vif.c_str(), file.port.c_str());
    *found = {file.dvs, file.port};
    return true;
  }
  return false;
}

// The port of the file is on its switch without the VIF.  It gets the VIF back where it is, since somebody
// may be connected with it; one that holds another VIF, or is another VM's, stays as it is.
bool PortOpsManager::TakeBack(const PortFileEntry& file, const std::string& directory, const std::string& vif,
                              const std::string& ls) {
  std::string holder;
  if (library_.PortTextGet(file.dvs, file.port, port_props::kExternalId, &holder) != kSwitchNotFound) {
    ZLOG_INFO("[PortOp] Port [%s] is there with VIF [%s]; it is left alone", file.port.c_str(),
              holder.c_str());
    return false;
  }
  const std::string path = PersistPath(file.dvs, file.port);
  if (const auto memory = VmDirectoryOfPortFile(path); memory && *memory != directory) {
    ZLOG_INFO("[PortOp] Port [%s] is there for the VM in [%s]; it is left alone", file.port.c_str(),
              memory->c_str());
    return false;
  }
  if (SetPortExtraConfig(file.dvs, file.port, port_props::kExternalId, vif) != 0 ||
      SetPortExtraConfig(file.dvs, file.port, port_props::kOpaqueNetworkId, ls) != 0 ||
      (path.empty() && SetPortExtraConfig(file.dvs, file.port, port_props::kPersistPath, file.path) != 0)) {
    return false;
  }
  TakeFile({file.dvs, file.port});
  return true;
}

bool PortOpsManager::RestorePort(const std::string& dvs, const std::string& port, const std::string& file) {
  ZLOG_INFO("[PortOp] Reading portfile:[%s]", file.c_str());
  std::string bytes;
  if (const int failed = ReadPortFile(file, &bytes); failed != 0) {
    ZLOG_ERROR("44206", "[PortOp] Port [%s] file read failed:%d", port.c_str(), failed);
    return false;
  }
  DvsData data(library_);
  if (const uint32_t result = data.Deserialize(bytes); result != 0) {
    ZLOG_ERROR("44206", "[PortOp] Port file [%s] holds no port", file.c_str());
    return false;
  }
  return AddFromFile({dvs, port, file}, std::string(data.Text(port_props::kExternalId).value_or("")), bytes);
}

// The port comes with the VIF that is in its file.
bool PortOpsManager::AddFromFile(const PortFileEntry& file, const std::string& vif,
                                 const std::string& bytes) {
  std::optional<VifIndex::Writing> writing;
  if (!vif.empty()) writing.emplace(*vif_index_, file.dvs, file.port, vif);
  if (const uint32_t result = library_.PortAdd(file.dvs, file.port, bytes); result != 0) {
    ZLOG_ERROR("44204", "[PortOp] Port add operation failed, error code [%s]",
               SwitchErrorText(result).c_str());
    return false;
  }
  ZLOG_INFO("[PortOp] Setting port persistence path:[%s]", file.path.c_str());
  // A failure is logged; the port is back in any case.
  static_cast<void>(SetPortExtraConfig(file.dvs, file.port, port_props::kPersistPath, file.path));
  return true;
}

// A port that the VM left behind when it went, while the file that came back with it has the VIF.
bool PortOpsManager::TakeLeftOver(const PortFileEntry& file, const std::string& dvs, const std::string& vif,
                                  const std::string& ls) {
  LibraryBuffer own;
  std::string bytes;
  DvsData data(library_);
  if (library_.PortDataGet(dvs, file.port, port_props::kExternalId, &own) != kSwitchNotFound ||
      ReadPortFile(file.path, &bytes) != 0 || data.Deserialize(bytes) != 0) {
    return false;
  }
  return data.Text(port_props::kExternalId) == vif && data.Text(port_props::kOpaqueNetworkId) == ls &&
         library_.PortRemove(dvs, file.port) == 0;
}

// The port is wanted for what is written on it.  It may come from a switch that this host has not, so all
// files are tried on the switch of the zone; what is not the port, and was not there before, goes again.
int PortOpsManager::FindPortToFetchVMTags(const std::string& vif, const std::string& ls,
                                          const std::string& gcf_path, const std::string& new_zone,
                                          PortLocation* found, std::string* error) {
  ZLOG_INFO("[PortOp] FindPortToFetchVMTags: VIF[%s] LS[%s] GCF[%s] newTZ[%s]", vif.c_str(), ls.c_str(),
            gcf_path.c_str(), new_zone.c_str());
  const std::string dvs = GetDvsIdForTz(new_zone);
  const auto directory = VmDirectoryOf(gcf_path);
  if (vif.empty() || ls.empty() || dvs.empty() || !directory) {
    *error = "Could not look for the prior port of VIF " + vif + ": its files or the switch are not known";
    return -1;
  }
  for (const PortFileEntry& file : PortFilesOf(*directory)) {
    const bool there = library_.PortFind(dvs, file.port) == 0 && !TakeLeftOver(file, dvs, vif, ls);
    if (!there && !RestorePort(dvs, file.port, file.path)) continue;
    const Same network = Compare(library_, dvs, file.port, port_props::kOpaqueNetworkId, ls);
    const Same id = Compare(library_, dvs, file.port, port_props::kExternalId, vif);
    if (network == Same::kYes && id == Same::kYes) {
      *found = {dvs, file.port};
      return 0;
    }
    if (network == Same::kUnknown || id == Same::kUnknown) {
      ZLOG_ERROR("44207", "[PortOp] Failed to lookup networkId/vifId of port [%s]. Unloading it from memory",
                 file.port.c_str());
    }
    if (there) continue;
    if (const uint32_t removed = library_.PortRemove(dvs, file.port); removed != 0) {
      ZLOG_WARN("[PortOp] Port [%s] was not removed, error code [%s]", file.port.c_str(),
                SwitchErrorText(removed).c_str());
    } else {
      vif_index_->Forget(dvs, file.port);
    }
  }
  *error = "Could not find the prior port of VIF " + vif;
  return -1;
}

}  // namespace zem::zema
