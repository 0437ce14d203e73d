#include "sim/truth/node_truth.h"

#include <map>

#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/runtime_objects.pb.h"
#include "proto/switching/switching.pb.h"
#include "sim/host/host_management.h"
#include "sim/host/host_state.h"
#include "sim/host/virtual_machines.h"
#include "sim/manager/manager.h"
#include "sim/store/logical_switches.h"
#include "sim/store/store.h"
#include "sim/switch/sim_state.h"
#include "sim/switch/vif_ports.h"
#include "sim/truth/host_diff.h"
#include "sim/truth/vm_check.h"

namespace zem::sim {
namespace {

namespace store_proto = orlane::zem::covedb;

constexpr const char* kHealthProperty = "com.orlane.common.opaqueDvs.status.component.zema";

using Lines = std::vector<std::string>;

std::string NodeIdOf(const Json& host) {
  const cJSON* const node = cJSON_GetObjectItemCaseSensitive(host.get(), "transportNodeId");
  return cJSON_IsString(node) ? node->valuestring : "";
}

uint64_t ProcessedBarrier(const Store& store) {
  store_proto::GetRequestMsg request;
  request.add_object_request()->set_object_type(store_proto::ObjectType::PROCESSED_BARRIER);
  store_proto::GetResponseMsg response;
  if (!store.Get(request, &response).ok()) return 0;
  for (const auto& object : response.object()) {
    store_proto::ProcessedBarrierMsg barrier;
    // Those with a component are of other parts of the agent.
    if (barrier.ParseFromString(object.object()) && !barrier.has_component()) return barrier.value();
  }
  return 0;
}

}  // namespace

Lines CheckHost(const HostState& host, const orlane::zem::switching::HostConfigMsg& config) {
  return DiffHost(config, NodeIdOf(host.Read()));
}

Lines CheckNetworks(const HostState& host, const Store& store, const std::set<uint32_t>& numbers,
                    uint64_t barrier) {
  Lines lines;
  std::set<std::string> wanted;
  for (const uint32_t number : numbers) wanted.insert(LogicalSwitchUuid(number));
  const Json networks = host.Networks();
  std::set<std::string> had;
  const cJSON* each = nullptr;
  cJSON_ArrayForEach(each, networks.get()) had.insert(each->string);
  for (const std::string& uuid : wanted) {
    if (had.count(uuid) == 0) lines.push_back("lacks network " + uuid);
  }
  for (const std::string& uuid : had) {
    if (wanted.count(uuid) == 0) lines.push_back("has network " + uuid + " without reason");
  }
  if (const uint64_t processed = ProcessedBarrier(store); barrier != 0 && processed != barrier) {
    lines.push_back("the processed barrier is " + std::to_string(processed) + " instead of " +
                    std::to_string(barrier));
  }
  return lines;
}

Lines CheckAllVifs(VirtualMachines& machines, Manager& manager, const HostState& host,
                   const std::set<std::string>& others, bool files_written) {
  VifKnowledge knowledge;
  knowledge.files_written = files_written;
  knowledge.interfaces = others;
  knowledge.machines = machines.All();
  const Json state = host.Read();
  knowledge.host = NodeIdOf(state);
  const cJSON* each = nullptr;
  cJSON_ArrayForEach(each, cJSON_GetObjectItemCaseSensitive(state.get(), "interfaces")) {
    const cJSON* const vif =
        cJSON_GetObjectItemCaseSensitive(cJSON_GetObjectItemCaseSensitive(each, "where"), "vif");
    if (cJSON_IsString(vif)) knowledge.interfaces.insert(vif->valuestring);
  }
  if (manager.vifs().serves()) knowledge.manager = manager.vifs().Places();
  return CheckVifs(knowledge);
}

Lines CheckInterfaces(const HostState& host, const orlane::zem::switching::HostConfigMsg& config) {
  Lines lines;
  std::map<std::string, std::string> wanted;  // VIFs by device; empty: on no port
  for (const auto& move : config.qub_if_migration().to_lswitches()) wanted[move.device()] = move.vif_id();
  for (const auto& move : config.qub_if_migration().to_vsw_or_psw()) wanted[move.device()] = "";
  const Json state = host.Read();
  const cJSON* each = nullptr;
  cJSON_ArrayForEach(each, cJSON_GetObjectItemCaseSensitive(state.get(), "interfaces")) {
    const cJSON* const where = cJSON_GetObjectItemCaseSensitive(each, "where");
    const auto text = [where](const char* name) {
      const char* const value = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(where, name));
      return value == nullptr ? std::string() : std::string(value);
    };
    const std::string device = each->string;
    const std::string vif = text("vif");
    if (const auto found = wanted.find(device); found != wanted.end() && found->second != vif) {
      lines.push_back("interface " + device + " has VIF [" + vif + "] instead of [" + found->second + "]");
    }
    if (text("kind") != "logical") continue;
    const auto use = ReadPortUse({text("switch"), text("port")});
    if (!use || use->vif != vif) {
      lines.push_back("interface " + device + " is on port " + text("port") + ", which holds VIF [" +
                      (use ? use->vif : "(no port)") + "] instead of [" + vif + "]");
    }
  }
  return lines;
}

Lines CheckSecurityPort(Manager& manager, const std::string& dvs, const std::string& port,
                        const std::string& vif) {
  const auto use = ReadPortUse({dvs, port});
  if (!use) return {"port " + port + " of the host went away"};
  Lines lines;
  const auto place = manager.vifs().Find(vif);
  const bool there = place && place->port == port;
  if (there != (use->vif == vif)) {
    lines.push_back("port " + port + " of the host holds VIF [" + use->vif + "], the manager has " + vif +
                    (place ? " on " + place->port : std::string(" nowhere")));
  }
  // A pending note is obsolete once the VIF has been attached or detached again.
  if (use->pending == (use->vif == vif ? "attach_port" : "detach_port"))
    lines.push_back("port " + port + " of the host still owes " + use->pending);
  return lines;
}

Lines CheckHealth(const SwitchState& switches, const std::string& state) {
  Lines lines;
  for (const std::string& id : switches.SwitchIds()) {
    const std::string shown = switches.SwitchProperty(id, "host", kHealthProperty).value_or("(nothing)");
    if (shown.substr(0, shown.find('\0')) != state) {
      lines.push_back("switch [" + id + "] shows the health [" + shown + "] instead of [" + state + "]");
    }
  }
  return lines;
}

Lines CheckManners(const SwitchState& switches, const HostManagement& management) {
  Lines lines;
  for (const std::string& line : switches.journal().Violations()) lines.push_back("switch library: " + line);
  for (const std::string& line : management.violations()) lines.push_back("host management: " + line);
  for (const std::string& id : management.outstanding()) {
    lines.push_back("host management: [" + id + "] was never answered");
  }
  return lines;
}

}  // namespace zem::sim
