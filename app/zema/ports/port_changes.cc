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

Outcome PortChanges::ClearVifFromPort(const std::string& zone, const std::string& port, const std::string& ls,
                                      const std::string& vif, bool force_find) {
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
    if (force_find) return FindAndClearExistingPortWithVifId(ls, vif);
    ZLOG_INFO("[%s] Nothing to do", __func__);
    return Outcome::Done();
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
      return FindAndClearExistingPortWithVifId(ls, vif);
    }
    ZLOG_INFO("[PortOp] Port [%s] state get failed, error code [%s], skip clearing VIF %s", port.c_str(),
              text.c_str(), vif.c_str());
    return Outcome::Done();
  }
  if (data.Text(port_props::kOpaqueNetworkId) != ls) {
    ZLOG_INFO("[PortOp] Logical switch did not match for port [%s]. Did not clear port.", port.c_str());
    return Outcome::Done();
  }
  // A late answer may name a VIF that has given the port to another VIF by now.
  if (const auto holder = data.Text(port_props::kExternalId); holder && !vif.empty() && *holder != vif) {
    ZLOG_INFO("[PortOp] Port [%s] holds VIF [%s] by now, not [%s]. Did not clear port.", port.c_str(),
              std::string(*holder).c_str(), vif.c_str());
    return force_find ? FindAndClearExistingPortWithVifId(ls, vif) : Outcome::Done();
  }
  ZLOG_INFO("[PortOp] Logical switch matched for port [%s]. Clearing port.", port.c_str());
  return ClearExternalId(dvs, port);
}

// The VIF is removed from the file first.  If the agent dies in between, the port still holds the VIF and the
// next try clears it; a file that kept the VIF would some day give it back to the port.
Outcome PortChanges::ClearExternalId(const std::string& dvs, const std::string& port) {
  std::string holder;
  bool saved = true;
  if (library_.PortTextGet(dvs, port, port_props::kExternalId, &holder) == 0) {
    // The VM and its directory may be gone already, which is no reason to leave the VIF on the port.
    saved = files_.SaveAgain("ClearVifFromPort", dvs, port, port_props::kExternalId);
  } else if (files_.FileText(dvs, port, port_props::kExternalId)) {
    // The file could not be written when the port was cleared.
    static_cast<void>(files_.SaveAgain("ClearVifFromPort", dvs, port));
  }
  std::string error;
  const int cleared = properties_.ClearPortExtraConfig(dvs, port, port_props::kExternalId, &error);
  if (cleared < 0) {
    static_cast<void>(files_.SaveAgain("ClearVifFromPort", dvs, port));
    return Outcome::Failed(std::move(error));
  }
  if (cleared == 1) {
    ZLOG_INFO(
        "[PortOp] Port [%s] DVSPROP_PORT_VNIC_EXTERNAL_ID not found ... already cleared on previous vif "
        "event, error code [%s]",
        port.c_str(), SwitchErrorText(kSwitchNotFound).c_str());
    return Outcome::Done();
  }
  // Nobody may ask for this port again, so the file is saved now in case the failure was temporary.
  if (!saved) static_cast<void>(files_.SaveAgain("ClearVifFromPort", dvs, port));
  if (!holder.empty()) index_.SetNowhere(holder);
  ZLOG_INFO("[PortOp] Cleared external id from port [%s] successfully", port.c_str());
  return Outcome::Done();
}

Outcome PortChanges::FindAndClearExistingPortWithVifId(const std::string& ls, const std::string& vif) {
  Outcome outcome = Outcome::Done();
  for (const PortLocation& at : holders_.AllToClear(vif, ls)) {
    if (Outcome cleared = ClearExternalId(at.dvs, at.port); !cleared) {
      outcome = std::move(cleared);
      continue;
    }
    ZLOG_INFO("[PortOp] Cleared external id [%s] from port [%s] successfully", vif.c_str(), at.port.c_str());
  }
  return outcome;
}

Outcome PortChanges::ClearVifFromPortOtherThan(const std::string& port, const std::string& vif) {
  Outcome outcome = Outcome::Done();
  for (const PortLocation& at : holders_.OtherThan(port, vif)) {
    if (Outcome cleared = ClearExternalId(at.dvs, at.port); !cleared) outcome = std::move(cleared);
  }
  return outcome;
}

Outcome PortChanges::UpdateGcfPath(const std::string& zone, const std::string& port,
                                   const std::string& new_gcf_path) {
  const std::string dvs = zones_.GetDvsIdForTz(zone);
  if (dvs.empty()) {
    std::string error =
        "DVS id for transport zone [" + zone + "] not found, UpdateGcfPath of port " + port + " is ignored";
    ZLOG_ERROR("44211", "[PortOp] %s", error.c_str());
    return Outcome::Failed(std::move(error));
  }
  ZLOG_INFO("[PortOp] Updating existing gcfpath [%s] to new gcfpath [%s]",
            files_.PersistPath(dvs, port).c_str(), new_gcf_path.c_str());
  const auto directory = VmDirectoryOf(new_gcf_path);
  const auto path = directory ? PortFilePath(*directory, dvs, port) : std::nullopt;
  if (!path || !MakePortFileDirectories(*path) || files_.SavePortDataFile(*path, dvs, port) != 0) {
    ZLOG_ERROR("44212", "[PortOp] UpdateGcfPath: Error saving file Port:[%s] GCF:[%s]", port.c_str(),
               new_gcf_path.c_str());
    return Outcome::Failed("Error saving the file of port " + port + " for [" + new_gcf_path + "]");
  }
  return properties_.SetPortExtraConfig(dvs, port, port_props::kPersistPath, *path);
}

Outcome PortChanges::UpdateDvportRpcOp(const std::string& dvs, const std::string& port,
                                       const std::string& rpc_op, const std::string& rpc_done) {
  const auto span = wft::WorkflowUtil::StartChildSpan("PortOpsManager.UpdateDvportRpcOp", wft::kTraceInfo);
  wft::WorkflowUtil::SetCurSpanTag("dvsId", dvs);
  wft::WorkflowUtil::SetCurSpanTag("portKey", port);
  wft::WorkflowUtil::SetCurSpanTag("rpcOp", rpc_op);
  wft::WorkflowUtil::SetCurSpanTag("rpcDone", rpc_done);
  if (dvs.empty() || port.empty() || rpc_op.empty() || rpc_done.empty()) {
    return Outcome::Failed("No switch, port or operation given");
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
    return Outcome::Failed("Failed to read the pending operation of port " + port + ": " + text);
  }
  const bool has = result == 0 && stored == rpc_op;
  // The file may lag behind its port, when it could not be written last time.
  const bool file_has = files_.FileText(dvs, port, port_props::kPortOpPending) == rpc_op;
  if (rpc_done == kDone) {
    if (!has && !file_has) return Outcome::Done();
    std::string reason;
    if (has && properties_.ClearPortExtraConfig(dvs, port, port_props::kPortOpPending, &reason) < 0) {
      ZLOG_ERROR("44208", "[PortOp] Error clearing rpcOp:[%s] error:[%s]", rpc_op.c_str(), reason.c_str());
      return Outcome::Failed(std::move(reason));
    }
  } else {
    if (has && file_has) return Outcome::Done();
    Outcome noted =
        has ? Outcome::Done() : properties_.SetPortExtraConfig(dvs, port, port_props::kPortOpPending, rpc_op);
    if (!noted) {
      ZLOG_ERROR("44205", "[PortOp] Error storing rpcOp:[%s] error:[%s]", rpc_op.c_str(),
                 noted.error().c_str());
      return noted;
    }
  }
  if (files_.SaveAgain("UpdateDvportRpcOp", dvs, port)) return Outcome::Done();
  return Outcome::Failed("Failed to save the file of port " + port);
}

Outcome PortChanges::ClearAttachmentState(const std::string& dvs, const std::string& port) {
  std::string error;
  const int cleared = properties_.ClearPortExtraConfig(dvs, port, port_props::kAttachmentState, &error);
  if (cleared < 0) return Outcome::Failed(std::move(error));
  if (cleared == 1 && !files_.FileText(dvs, port, port_props::kAttachmentState)) return Outcome::Done();
  if (files_.SaveAgain(__func__, dvs, port)) return Outcome::Done();
  return Outcome::Failed("Failed to save the file of port " + port);
}

Outcome PortChanges::DeletePort(const std::string& dvs, const std::string& port, bool vm_leaves) {
  const std::string path = files_.PersistPath(dvs, port);
  const uint32_t result = library_.PortRemove(dvs, port);
  if (result != 0 && result != kSwitchNotFound) {
    const std::string text = SwitchErrorText(result);
    ZLOG_ERROR("44204", "[PortOp] Port [%s] remove operation failed, error code [%s]", port.c_str(),
               text.c_str());
    return Outcome::Failed("Failed to remove port " + port + ": " + text);
  }
  index_.Forget(dvs, port);
  if (path.empty()) return Outcome::Done();
  if (vm_leaves ? DeletePortFile(path) : RemovePortFile(path)) return Outcome::Done();
  return Outcome::Failed("Failed to remove the file of port " + port);
}

}  // namespace zem::zema
