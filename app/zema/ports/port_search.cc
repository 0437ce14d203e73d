#include "app/zema/ports/port_search.h"

#include <optional>

#include "app/zema/hostlib/dvs_data.h"
#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/ports/port_data_files.h"
#include "app/zema/ports/port_file.h"
#include "app/zema/ports/port_properties.h"
#include "app/zema/ports/transport_zones.h"
#include "app/zema/ports/vif_holders.h"
#include "app/zema/ports/vif_index.h"
#include "framework/log/log.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

}  // namespace

Outcome PortSearch::FindPortByVifUuid(const std::string& vif, const std::string& ls, std::string* gcf_path,
                                      PortLocation* found) {
  const auto span = wft::WorkflowUtil::StartChildSpan("PortOpsManager.FindPortByVifUuid", wft::kTraceInfo);
  wft::WorkflowUtil::SetCurSpanTag(wft::tags::kVif, vif);
  wft::WorkflowUtil::SetCurSpanTag(wft::tags::kLogicalSwitch, ls);
  wft::WorkflowUtil::SetCurSpanTag("gcfPath", *gcf_path);
  if (vif.empty() || ls.empty()) {
    return Outcome::Failed("No VIF or logical switch given to find a port by");
  }
  if (auto holder = holders_.OnNetwork(vif, ls)) {
    *found = *std::move(holder);
    // A port without file has no directory to compare.
    const auto memory = VmDirectoryOfPortFile(files_.PersistPath(found->dvs, found->port));
    const auto wanted = VmDirectoryOf(*gcf_path);
    if (memory && wanted && *memory != *wanted) {
      std::string error = "Failed to find required port. GCF path [" + *gcf_path +
                          "] specified for the port is different from the gcf path [" + *memory +
                          "] in memory";
      ZLOG_ERROR("44207", "[PortOp] %s", error.c_str());
      return Outcome::Failed(std::move(error));
    }
    if (memory && gcf_path->empty()) *gcf_path = *memory;
    ZLOG_INFO("[PortOp] Found required port. VIF[%s] PortKey:[%s] GCF Dir Path: [%s]", vif.c_str(),
              found->port.c_str(), memory.value_or("").c_str());
    return Outcome::Done();
  }
  if (!gcf_path->empty()) {
    ZLOG_INFO("[PortOp] Searching through gcf dir");
    const auto directory = VmDirectoryOf(*gcf_path);
    if (!directory) {
      ZLOG_INFO(
          "[PortOp] Ignoring port [%s] restore from portData file for knl and crx ports with gcfPath: [%s]",
          vif.c_str(), gcf_path->c_str());
      return Outcome::Failed("Could not find port with VIF " + vif);
    }
    if (RestoreFromFiles(vif, ls, *directory, found)) return Outcome::Done();
  }
  ZLOG_INFO("[PortOp] Could not find port/vif");
  return Outcome::Failed("Could not find port with VIF " + vif);
}

std::vector<PortLocation> PortSearch::PortsOfKey(const std::string& port) const {
  std::vector<PortLocation> found;
  if (port.empty()) return found;
  for (const std::string& dvs : zones_.Switches()) {
    if (library_.PortFind(dvs, port) == 0) found.push_back({dvs, port});
  }
  return found;
}

// Other ports of the VM may be in use, and the folder of a clone holds the files of the original VM.  So each
// file is read before anything is changed, and only the port that is looked for is touched.
bool PortSearch::RestoreFromFiles(const std::string& vif, const std::string& ls, const std::string& directory,
                                  PortLocation* found) {
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

// The port of the file is on its switch, but without the VIF.  The VIF is set on the port in place, since the
// port may be in use; a port that holds another VIF, or belongs to another VM, is left alone.
bool PortSearch::TakeBack(const PortFileEntry& file, const std::string& directory, const std::string& vif,
                          const std::string& ls) {
  std::string holder;
  if (library_.PortTextGet(file.dvs, file.port, port_props::kExternalId, &holder) != kSwitchNotFound) {
    ZLOG_INFO("[PortOp] Port [%s] is there with VIF [%s]; it is left alone", file.port.c_str(),
              holder.c_str());
    return false;
  }
  const std::string path = files_.PersistPath(file.dvs, file.port);
  if (const auto memory = VmDirectoryOfPortFile(path); memory && *memory != directory) {
    ZLOG_INFO("[PortOp] Port [%s] is there for the VM in [%s]; it is left alone", file.port.c_str(),
              memory->c_str());
    return false;
  }
  if (!properties_.SetPortExtraConfig(file.dvs, file.port, port_props::kExternalId, vif) ||
      !properties_.SetPortExtraConfig(file.dvs, file.port, port_props::kOpaqueNetworkId, ls) ||
      (path.empty() &&
       !properties_.SetPortExtraConfig(file.dvs, file.port, port_props::kPersistPath, file.path))) {
    return false;
  }
  files_.TakeFile({file.dvs, file.port});
  return true;
}

bool PortSearch::RestorePort(const std::string& dvs, const std::string& port, const std::string& file) {
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

// The port is added with the VIF that its file names.
bool PortSearch::AddFromFile(const PortFileEntry& file, const std::string& vif, const std::string& bytes) {
  std::optional<VifIndex::Writing> writing;
  if (!vif.empty()) writing.emplace(index_, file.dvs, file.port, vif);
  if (const uint32_t result = library_.PortAdd(file.dvs, file.port, bytes); result != 0) {
    ZLOG_ERROR("44204", "[PortOp] Port add operation failed, error code [%s]",
               SwitchErrorText(result).c_str());
    return false;
  }
  ZLOG_INFO("[PortOp] Setting port persistence path:[%s]", file.path.c_str());
  // A failure is logged; the port is back in any case.
  static_cast<void>(properties_.SetPortExtraConfig(file.dvs, file.port, port_props::kPersistPath, file.path));
  return true;
}

// Removes a port that the VM left behind when it went, when the file that came back with the VM has the VIF.
bool PortSearch::TakeLeftOver(const PortFileEntry& file, const std::string& dvs, const std::string& vif,
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

// The caller only reads what is written on the port.  The port may come from a switch that this host does not
// have, so every file is tried on the switch of the zone; a port that is not the right one and was not there
// before is removed again.
Outcome PortSearch::FindPortToFetchVMTags(const std::string& vif, const std::string& ls,
                                          const std::string& gcf_path, const std::string& new_zone,
                                          PortLocation* found) {
  ZLOG_INFO("[PortOp] FindPortToFetchVMTags: VIF[%s] LS[%s] GCF[%s] newTZ[%s]", vif.c_str(), ls.c_str(),
            gcf_path.c_str(), new_zone.c_str());
  const std::string dvs = zones_.GetDvsIdForTz(new_zone);
  const auto directory = VmDirectoryOf(gcf_path);
  if (vif.empty() || ls.empty() || dvs.empty() || !directory) {
    return Outcome::Failed("Could not look for the prior port of VIF " + vif +
                           ": its files or the switch are not known");
  }
  for (const PortFileEntry& file : PortFilesOf(*directory)) {
    const bool there = library_.PortFind(dvs, file.port) == 0 && !TakeLeftOver(file, dvs, vif, ls);
    if (!there && !RestorePort(dvs, file.port, file.path)) continue;
    const auto network = properties_.Compare({dvs, file.port}, port_props::kOpaqueNetworkId, ls);
    const auto id = properties_.Compare({dvs, file.port}, port_props::kExternalId, vif);
    if (network == PortProperties::Same::kYes && id == PortProperties::Same::kYes) {
      *found = {dvs, file.port};
      return Outcome::Done();
    }
    if (network == PortProperties::Same::kUnknown || id == PortProperties::Same::kUnknown) {
      ZLOG_ERROR("44207", "[PortOp] Failed to lookup networkId/vifId of port [%s]. Unloading it from memory",
                 file.port.c_str());
    }
    if (there) continue;
    if (const uint32_t removed = library_.PortRemove(dvs, file.port); removed != 0) {
      ZLOG_WARN("[PortOp] Port [%s] was not removed, error code [%s]", file.port.c_str(),
                SwitchErrorText(removed).c_str());
    } else {
      index_.Forget(dvs, file.port);
    }
  }
  return Outcome::Failed("Could not find the prior port of VIF " + vif);
}

}  // namespace zem::zema
