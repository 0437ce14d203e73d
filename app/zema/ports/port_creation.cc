#include "app/zema/ports/port_creation.h"

#include <boost/algorithm/string/predicate.hpp>

#include "app/zema/hostlib/dvs_data.h"
#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/ports/port_data_files.h"
#include "app/zema/ports/port_description.h"
#include "app/zema/ports/port_file.h"
#include "app/zema/ports/port_properties.h"
#include "app/zema/ports/transport_zones.h"
#include "framework/log/log.h"
#include "platform/core/clock.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kKindKln = "KLN";
constexpr const char* kBackingZem = "zem";
constexpr const char* kUnblockedVlan = "UNBLOCKED_VLAN";
constexpr const char* kPendingConf = "PENDING_CONF";
constexpr const char* kContainerVm = "crx";

std::string_view TextZ(const std::string& text) { return {text.c_str(), text.size() + 1}; }

// The last failure is the outcome of the whole.
void TakeFailure(Outcome* outcome, Outcome each) {
  if (!each) *outcome = std::move(each);
}

// Differs from one making of a port to the next.
std::string ConnectionCookie() {
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(Clock::Process().WallNow().time_since_epoch());
  const auto cookie = static_cast<uint32_t>(seconds.count() & 0x7fffffff);
  return {reinterpret_cast<const char*>(&cookie), sizeof(cookie)};
}

}  // namespace

Outcome PortCreation::CreatePort(const PortConfigSpec& spec, const std::string& vif,
                                 const std::string& gcf_path, bool block_flag) {
  const auto span = wft::WorkflowUtil::StartChildSpan("PortOpsManager.CreatePort", wft::kTraceInfo);
  wft::WorkflowUtil::SetCurSpanTag("gcfPath", gcf_path);
  wft::WorkflowUtil::SetCurSpanTag(wft::tags::kLogicalSwitchPort, spec.port_id);
  wft::WorkflowUtil::SetCurSpanTag(wft::tags::kLogicalSwitch, spec.switch_id);
  wft::WorkflowUtil::SetCurSpanTag(wft::tags::kTransportZone, spec.zone_id);
  wft::WorkflowUtil::SetCurSpanTag(wft::tags::kVif, vif);

  const HostSwitchInfo host_switch = zones_.GetHostSwitchInfoForTz(spec.zone_id);
  if (host_switch.dvs.empty()) {
    std::string error = "Failed to create port " + spec.port_id + " with VIF " + vif +
                        " because DVS id is not found by transport-zone id " + spec.zone_id;
    ZLOG_ERROR("44211", "[PortOp] %s", error.c_str());
    return Outcome::Failed(std::move(error));
  }
  const bool unblock = spec.init_state == kUnblockedVlan;
  std::string block = block_flag && !unblock ? port_props::kTrue : port_props::kFalse;
  ZLOG_INFO("[PortOp] block setting [%s], setting unblock port config property [%s]", block.c_str(),
            unblock ? port_props::kTrue : port_props::kFalse);

  const uint32_t found = library_.PortFind(host_switch.dvs, spec.port_id);
  if (found == 0) {
    RefreshExisting(host_switch.dvs, spec.port_id, &block);
  } else if (Outcome created = CreateNew(host_switch, spec, block, unblock); !created) {
    return created;
  }
  Outcome configured = SetPortConfig(host_switch.dvs, spec, vif, gcf_path);
  Outcome put = PutPortFile(host_switch.dvs, spec.port_id, gcf_path, spec.extra_configs);
  return put ? configured : put;
}

void PortCreation::RefreshExisting(const std::string& dvs, const std::string& port, std::string* block) {
  ZLOG_INFO("[PortOp] found an existing port with id [%s]", port.c_str());
  std::string stored;
  if (library_.PortTextGet(dvs, port, port_props::kBlock, &stored) == 0) *block = stored;
  ZLOG_INFO("[PortOp] block setting now [%s]", block->c_str());
  const uint32_t result = library_.PortDataSet(dvs, port, port_props::kConnectId, ConnectionCookie());
  if (result != 0) {
    ZLOG_ERROR("44205", "[PortOp] Ignore failure to update port creation time: Port:[%s] Error:[%s]",
               port.c_str(), SwitchErrorText(result).c_str());
  }
}

Outcome PortCreation::CreateNew(const HostSwitchInfo& host_switch, const PortConfigSpec& spec,
                                const std::string& block, bool unblock) {
  ZLOG_INFO("[PortOp] port was not found");
  DvsData data(library_);
  uint32_t result = data.Alloc();
  if (result != 0) {
    const std::string text = SwitchErrorText(result);
    ZLOG_ERROR("44201", "[PortOp] DVS data alloc failed, error code [%s]", text.c_str());
    return Outcome::Failed("DVS data alloc failed: " + text);
  }
  const auto add = [&](const char* name, std::string_view value) {
    if (result == 0) result = data.Update(name, value);
  };
  add(port_props::kAlias, TextZ(spec.port_id));
  add(port_props::kConnectId, ConnectionCookie());
  add(port_props::kBlock, TextZ(block));
  if (unblock) add(port_props::kUnblockedVlan, TextZ(port_props::kTrue));
  if (host_switch.kind == kKindKln) {
    add(port_props::kBackingType, TextZ(kBackingZem));
    ZLOG_INFO("[PortOp] Set port backing type to zem for KLN");
  }
  if (spec.init_state == kPendingConf) add(port_props::kAttachmentState, TextZ(port_props::kPendingConf));
  const struct {
    const char* property;
    const char* word;
    const std::string& value;
  } tenancy[] = {
      {port_props::kOrg, "org", spec.org},
      {port_props::kProject, "project", spec.project},
      {port_props::kVpc, "vpc", spec.vpc},
  };
  for (const auto& row : tenancy) {
    if (row.value.empty()) continue;
    add(row.property, TextZ(row.value));
    ZLOG_INFO("[PortOp] Configured %s port property [%s]", row.word, row.value.c_str());
  }
  LibraryBuffer bytes;
  if (result == 0) result = data.Serialize(&bytes);
  if (result != 0) {
    const std::string text = SwitchErrorText(result);
    ZLOG_ERROR("44203", "[PortOp] DVS data serialize failed, error code [%s]", text.c_str());
    return Outcome::Failed("DVS data serialize failed: " + text);
  }
  result = library_.PortAdd(host_switch.dvs, spec.port_id, bytes.bytes());
  if (result != 0) {
    const std::string text = SwitchErrorText(result);
    ZLOG_ERROR("44204", "[PortOp] Port add operation failed, error code [%s]", text.c_str());
    return Outcome::Failed("Port add operation failed: " + text);
  }
  ZLOG_INFO("[PortOp] Successfully created port [%s]", spec.port_id.c_str());
  return Outcome::Done();
}

Outcome PortCreation::SetPortConfig(const std::string& dvs, const PortConfigSpec& spec,
                                    const std::string& vif, const std::string& gcf_path) {
  const std::string& port = spec.port_id;
  ZLOG_INFO("[PortOp] Setting extra configs ");
  Outcome outcome = Outcome::Done();
  const auto count = [&outcome](Outcome each) { TakeFailure(&outcome, std::move(each)); };
  count(properties_.SetPortExtraConfig(dvs, port, port_props::kExternalId, vif));
  count(properties_.SetPortExtraConfig(dvs, port, port_props::kOpaqueNetworkId, spec.switch_id));
  if (boost::algorithm::icontains(gcf_path, kContainerVm)) {
    count(properties_.SetPortExtraConfig(dvs, port, port_props::kCrx, port_props::kTrue));
  }
  // An untagged port is configured as well, because it may have had a tag before.
  if (spec.vlan >= 0 || !spec.vlan_ranges.empty()) {
    count(properties_.SetVlanPolicy(dvs, port, spec.vlan, spec.vlan_ranges));
  }
  if (!spec.uplink_teaming.empty()) count(properties_.SetUplinkTeamingName(dvs, port, spec.uplink_teaming));
  return outcome;
}

// A file that cannot be written keeps no VM from its network: an error line reports it, and the port's next
// change saves it again.
Outcome PortCreation::PutPortFile(const std::string& dvs, const std::string& port,
                                  const std::string& gcf_path,
                                  const std::map<std::string, std::string>& extra_configs) {
  Outcome outcome = Outcome::Done();
  const auto directory = VmDirectoryOf(gcf_path);
  const auto wanted = directory ? PortFilePath(*directory, dvs, port) : std::nullopt;
  std::string before;  // the file of a VM whose folder changes
  if (wanted) {
    const std::string current = files_.PersistPath(dvs, port);
    if (current == *wanted) {
      ZLOG_INFO("[PortOp] PortFilePath for port [%s] remains the same", port.c_str());
    } else {
      TakeFailure(&outcome, properties_.SetPortExtraConfig(dvs, port, port_props::kPersistPath, *wanted));
      before = current;
    }
  }
  for (const auto& [key, value] : extra_configs) {
    ZLOG_INFO("[PortOp] extraConfigs first [%s], second [%s]", key.c_str(), value.c_str());
    TakeFailure(&outcome, properties_.SetPortExtraConfig(dvs, port, key, value));
  }
  if (!wanted) return outcome;
  const bool saved = files_.SaveNew(*wanted, dvs, port);
  if (before.empty()) return outcome;
  // Whatever happens, one of the two files exists, and the port names that one.
  if (!saved) {
    TakeFailure(&outcome, properties_.SetPortExtraConfig(dvs, port, port_props::kPersistPath, before));
  } else if (!RemovePortFile(before)) {
    ZLOG_WARN("[PortOp] The file before of port [%s] stays at [%s]", port.c_str(), before.c_str());
  }
  return outcome;
}

}  // namespace zem::zema
