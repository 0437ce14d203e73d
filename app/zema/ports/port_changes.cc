#include "app/zema/ports/port_changes.h"

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

constexpr const char* kDone = "true";

}  // namespace

int PortChanges::ClearVifFromPort(const std::string& zone, const std::string& port, const std::string& ls,
                                  const std::string& vif, bool force_find, std::string* error) {
  const auto span = wft::WorkflowUtil::StartChildSpan("PortOpsManager.ClearVifFromPort", wft::kTraceInfo);
  wft::WorkflowUtil::SetCurSpanTag(wft::tags::kVif, vif);
  wft::WorkflowUtil::SetCurSpanTag(wft::tags::kLogicalSwitchPort, port);
  const std::string dvs = zones_.GetDvsIdForTz(zone);
  ZLOG_INFO("[PortOp] tzId:[%s] dvsId:[%s] lportId:[%s] vifId:[%s] forceFind:[%d]", zone.c_str(), dvs.c_str(),
            port.c_str(), vif.c_str(), force_find);
  if (dvs.empty() || port.empty()) {
    if (dvs.empty()) {
      ZLOG_INFO("[PortOp] ClearVifFromPort VIF %s, DVS id for transport zone [%s] not found.", vif.c_str(),
                zone.c_str());
    }
    if (force_find) return FindAndClearExistingPortWithVifId(ls, vif, error);
    ZLOG_INFO("[%s] Nothing to do", __func__);
    return 0;
  }
  LibraryBuffer state;
  DvsData data(library_);
  uint32_t result = library_.PortStateGet(dvs, port, &state);
  if (result == 0) result = data.Deserialize(state.bytes());
  if (result != 0) {
    const std::string text = SwitchErrorText(result);
    if (force_find) {
      ZLOG_INFO(
          "[PortOp] Port [%s] state get failed, error code [%s], looking at all switches to clear VIF %s",
          port.c_str(), text.c_str(), vif.c_str());
      return FindAndClearExistingPortWithVifId(ls, vif, error);
    }
    ZLOG_INFO("[PortOp] Port [%s] state get failed, error code [%s], skip clearing VIF %s", port.c_str(),
              text.c_str(), vif.c_str());
    return 0;
  }
  if (data.Text(port_props::kOpaqueNetworkId) != ls) {
    ZLOG_INFO("[PortOp] Logical switch did not match for port [%s]. Did not clear port.", port.c_str());
    return 0;
  }
  // An answer that comes late may speak of a VIF that has left the port to another by now.
  if (const auto holder = data.Text(port_props::kExternalId); holder && !vif.empty() && *holder != vif) {
    ZLOG_INFO("[PortOp] Port [%s] holds VIF [%s] by now, not [%s]. Did not clear port.", port.c_str(),
              std::string(*holder).c_str(), vif.c_str());
    return force_find ? FindAndClearExistingPortWithVifId(ls, vif, error) : 0;
  }
  ZLOG_INFO("[PortOp] Logical switch matched for port [%s]. Clearing port.", port.c_str());
  return ClearExternalId(dvs, port, error);
}

// The file loses the VIF first: a port that dies in between still holds it and is cleared by the next try,
// while a file that kept it would give the port the VIF back one day.
int PortChanges::ClearExternalId(const std::string& dvs, const std::string& port, std::string* error) {
  std::string holder;
  bool saved = true;
  if (library_.PortTextGet(dvs, port, port_props::kExternalId, &holder) == 0) {
    // The VM and its directory may be gone already: that keeps nobody from taking the VIF off.
    saved = files_.SaveAgain("ClearVifFromPort", dvs, port, port_props::kExternalId) == 0;
  } else if (files_.FileText(dvs, port, port_props::kExternalId)) {
    // It could not be written when the port was cleared.
    static_cast<void>(files_.SaveAgain("ClearVifFromPort", dvs, port));
  }
  const int cleared = properties_.ClearPortExtraConfig(dvs, port, port_props::kExternalId, error);
  if (cleared < 0) {
    static_cast<void>(files_.SaveAgain("ClearVifFromPort", dvs, port));
    return -1;
  }
  if (cleared == 1) {
    ZLOG_INFO(
        "[PortOp] Port [%s] DVSPROP_PORT_VNIC_EXTERNAL_ID not found ... already cleared on previous vif "
        "event, error code [%s]",
        port.c_str(), SwitchErrorText(kSwitchNotFound).c_str());
    return 0;
  }
  // Nobody may ask for this port again, so a failure that has passed is made good at once.
  if (!saved) static_cast<void>(files_.SaveAgain("ClearVifFromPort", dvs, port));
  if (!holder.empty()) index_.SetNowhere(holder);
  ZLOG_INFO("[PortOp] Cleared external id from port [%s] successfully", port.c_str());
  return 0;
}

int PortChanges::FindAndClearExistingPortWithVifId(const std::string& ls, const std::string& vif,
                                                   std::string* error) {
  int result = 0;
  for (const PortLocation& at : holders_.AllToClear(vif, ls)) {
    if (ClearExternalId(at.dvs, at.port, error) != 0) {
      result = -1;
      continue;
    }
    ZLOG_INFO("[PortOp] Cleared external id [%s] from port [%s] successfully", vif.c_str(), at.port.c_str());
  }
  return result;
}

int PortChanges::ClearVifFromPortOtherThan(const std::string& port, const std::string& vif,
                                           std::string* error) {
  int result = 0;
  for (const PortLocation& at : holders_.OtherThan(port, vif)) {
    if (ClearExternalId(at.dvs, at.port, error) != 0) result = -1;
  }
  return result;
}

int PortChanges::UpdateGcfPath(const std::string& zone, const std::string& port,
                               const std::string& new_gcf_path, std::string* error) {
  const std::string dvs = zones_.GetDvsIdForTz(zone);
  if (dvs.empty()) {
    *error =
        "DVS id for transport zone [" + zone + "] not found, UpdateGcfPath of port " + port + " is ignored";
    ZLOG_ERROR("44211", "[PortOp] %s", error->c_str());
    return -1;
  }
  ZLOG_INFO("[PortOp] Updating existing gcfpath [%s] to new gcfpath [%s]",
            files_.PersistPath(dvs, port).c_str(), new_gcf_path.c_str());
  const auto directory = VmDirectoryOf(new_gcf_path);
  const auto path = directory ? PortFilePath(*directory, dvs, port) : std::nullopt;
  if (!path || !MakePortFileDirectories(*path) || files_.SavePortDataFile(*path, dvs, port) != 0) {
    ZLOG_ERROR("44212", "[PortOp] UpdateGcfPath: Error saving file Port:[%s] GCF:[%s]", port.c_str(),
               new_gcf_path.c_str());
    *error = "Error saving the file of port " + port + " for [" + new_gcf_path + "]";
    return -1;
  }
  return properties_.SetPortExtraConfig(dvs, port, port_props::kPersistPath, *path, error);
}

int PortChanges::UpdateDvportRpcOp(const std::string& dvs, const std::string& port, const std::string& rpc_op,
                                   const std::string& rpc_done, std::string* error) {
  const auto span = wft::WorkflowUtil::StartChildSpan("PortOpsManager.UpdateDvportRpcOp", wft::kTraceInfo);
  wft::WorkflowUtil::SetCurSpanTag("dvsId", dvs);
  wft::WorkflowUtil::SetCurSpanTag("portKey", port);
  wft::WorkflowUtil::SetCurSpanTag("rpcOp", rpc_op);
  wft::WorkflowUtil::SetCurSpanTag("rpcDone", rpc_done);
  if (dvs.empty() || port.empty() || rpc_op.empty() || rpc_done.empty()) {
    *error = "No switch, port or operation given";
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
    *error = "Failed to read the pending operation of port " + port + ": " + text;
    return -1;
  }
  const bool has = result == 0 && stored == rpc_op;
  // A file that could not be written last time is behind its port.
  const bool file_has = files_.FileText(dvs, port, port_props::kPortOpPending) == rpc_op;
  std::string reason;
  if (rpc_done == kDone) {
    if (!has && !file_has) return 0;
    if (has && properties_.ClearPortExtraConfig(dvs, port, port_props::kPortOpPending, &reason) < 0) {
      ZLOG_ERROR("44208", "[PortOp] Error clearing rpcOp:[%s] error:[%s]", rpc_op.c_str(), reason.c_str());
      *error = std::move(reason);
      return -1;
    }
  } else {
    if (has && file_has) return 0;
    if (!has && properties_.SetPortExtraConfig(dvs, port, port_props::kPortOpPending, rpc_op, &reason) != 0) {
      ZLOG_ERROR("44205", "[PortOp] Error storing rpcOp:[%s] error:[%s]", rpc_op.c_str(), reason.c_str());
      *error = std::move(reason);
      return -1;
    }
  }
  if (files_.SaveAgain("UpdateDvportRpcOp", dvs, port) == 0) return 0;
  *error = "Failed to save the file of port " + port;
  return -1;
}

int PortChanges::ClearAttachmentState(const std::string& dvs, const std::string& port, std::string* error) {
  const int cleared = properties_.ClearPortExtraConfig(dvs, port, port_props::kAttachmentState, error);
  if (cleared < 0) return -1;
  if (cleared == 1 && !files_.FileText(dvs, port, port_props::kAttachmentState)) return 0;
  if (files_.SaveAgain(__func__, dvs, port) == 0) return 0;
  *error = "Failed to save the file of port " + port;
  return -1;
}

int PortChanges::DeletePort(const std::string& dvs, const std::string& port, bool vm_leaves,
                            std::string* error) {
  const std::string path = files_.PersistPath(dvs, port);
  const uint32_t result = library_.PortRemove(dvs, port);
  if (result != 0 && result != kSwitchNotFound) {
    const std::string text = SwitchErrorText(result);
    ZLOG_ERROR("44204", "[PortOp] Port [%s] remove operation failed, error code [%s]", port.c_str(),
               text.c_str());
    *error = "Failed to remove port " + port + ": " + text;
    return -1;
  }
  index_.Forget(dvs, port);
  if (path.empty()) return 0;
  if (vm_leaves ? DeletePortFile(path) : RemovePortFile(path)) return 0;
  *error = "Failed to remove the file of port " + port;
  return -1;
}

}  // namespace zem::zema
