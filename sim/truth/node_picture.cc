#include "sim/truth/node_picture.h"

#include <algorithm>
#include <map>
#include <vector>

#include "proto/switching/switching.pb.h"
#include "sim/host/host_management.h"
#include "sim/host/host_state.h"
#include "sim/host/virtual_machines.h"
#include "sim/manager/manager.h"
#include "sim/sandbox/daemon_process.h"
#include "sim/sinks/log_sink.h"
#include "sim/switch/tree/json_file.h"
#include "sim/switch/tree/state_tree.h"
#include "sim/switch/vif_ports.h"
#include "sim/truth/host_diff.h"
#include "sim/truth/vm_check.h"

namespace zem::sim {
namespace {

constexpr size_t kErrors = 3;
constexpr size_t kLongestError = 160;

std::string Text(const cJSON* object, std::initializer_list<const char*> path) {
  for (const char* const name : path) object = cJSON_GetObjectItemCaseSensitive(object, name);
  const char* const text = cJSON_GetStringValue(object);
  return text == nullptr ? std::string() : text;
}

std::string Padded(std::string text, size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts) joined += (joined.empty() ? "" : ", ") + text;
  return joined.empty() ? "none" : joined;
}

class Picture {
 public:
  explicit Picture(const NodeView& view)
      : view_(view), host_(view.host.Read()), machines_(view.machines.All()) {
    for (const VirtualMachine& machine : machines_) {
      for (const auto& [device, vnic] : machine.vnics)
        names_[machine.uuid + ":" + device] = machine.name + " " + device;
    }
  }

  std::string Draw() {
    DrawNodeItself();
    const auto switches = ReadHostSwitches();
    if (switches.empty()) Line("no switches");
    for (const HostSwitchState& host_switch : switches) DrawSwitch(host_switch);
    DrawInterfaces();
    DrawMachines();
    DrawUnrealized();
    return std::move(text_);
  }

 private:
  void Line(const std::string& line) { text_ += line + "\n"; }

  void DrawNodeItself() {
    const std::string id = Text(host_.get(), {"transportNodeId"});
    const bool maintenance = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(host_.get(), "maintenance")) != 0;
    Line("node " + (id.empty() ? "without an id" : id) + ", host " + Text(host_.get(), {"version"}) +
         (maintenance ? ", in maintenance mode" : ""));
    const pid_t pid = view_.daemon.pid();
    Line("  daemon           " + (pid != 0 ? "runs as " + std::to_string(pid) : std::string("does not run")) +
         ", started " + std::to_string(view_.daemon.starts()) + " times");
    const std::string master = view_.manager.Master();
    Line("  manager          " + (master.empty() ? "no master" : "master " + master) +
         (view_.manager.proxy_running() ? "" : ", the proxy does not run"));
    const HostManagement::State state = view_.host_management.state();
    Line("  host management  " +
         std::string(state.connected   ? "connected"
                     : state.listening ? "nobody is connected"
                                       : "closed") +
         ", " + std::to_string(view_.host_management.outstanding().size()) + " outstanding, " +
         std::to_string(view_.host_management.violations().size()) + " violations");
  }

  void DrawSwitch(const HostSwitchState& host_switch) {
    Line("");
    Line("switch " + host_switch.name + "  " + host_switch.kind + "  MTU " + std::to_string(host_switch.mtu) +
         "  zones " + Joined(host_switch.zones) + "  [" + host_switch.id + "]");
    for (const std::string& pair : host_switch.pnics) {
      const std::string pnic = pair.substr(0, pair.find('~'));
      Line("  |-- uplink    " + Padded(pair.substr(pair.find('~') + 1), 12) + " " + pnic + ", link " +
           Text(host_.get(), {"pnics", pnic.c_str(), "link"}));
    }
    for (const std::string& device : host_switch.endpoints) {
      const JsonFile endpoint = ReadJson(tree::KnlnicsDir() + "/" + device + ".json");
      const std::string address = JsonString(endpoint.get(), "ip");
      const std::string address6 = JsonString(endpoint.get(), "ip6");
      Line("  |-- endpoint  " + Padded(device, 12) + " " + (address.empty() ? "no address yet" : address) +
           (address6.empty() || address6 == "::" ? "" : " " + address6));
    }
    DrawPorts(host_switch.id);
  }

  void DrawPorts(const std::string& dvs) {
    auto ports = tree::List(tree::SwitchDir(dvs) + "/ports").value_or(std::vector<std::string>());
    std::sort(ports.begin(), ports.end());
    for (size_t i = 0; i < ports.size(); ++i) {
      if (i == view_.most) return Line("  `-- and " + std::to_string(ports.size() - i) + " more ports");
      const auto use = ReadPortUse({dvs, ports[i]});
      if (!use) continue;
      const auto name = names_.find(use->vnic);
      const std::string who = name != names_.end() ? name->second : use->vnic.empty() ? "nobody" : use->vnic;
      Line("  |-- port      " + Padded(ports[i], 12) + " " + (use->vif.empty() ? "free" : "VIF " + use->vif) +
           (use->ls.empty() ? "" : " in [" + use->ls + "]") + ", connected with " + who +
           (use->pending.empty() ? "" : ", waits with " + use->pending));
    }
  }

  void DrawInterfaces() {
    Line("");
    const cJSON* each = nullptr;
    cJSON_ArrayForEach(each, cJSON_GetObjectItemCaseSensitive(host_.get(), "interfaces")) {
      const std::string kind = Text(each, {"where", "kind"});
      std::string where =
          "standard switch " + Text(each, {"where", "switch"}) + ", " + Text(each, {"where", "portGroup"});
      if (kind == "logical")
        where = "port " + Text(each, {"where", "port"}) + " in [" + Text(each, {"where", "ls"}) + "]";
      if (kind == "endpoint") where = "endpoint";
      Line("interface " + Padded(each->string, 8) + " " + Padded(Text(each, {"type"}), 12) + " " + where);
    }
  }

  void DrawMachines() {
    const auto on =
        std::count_if(machines_.begin(), machines_.end(), [](const VirtualMachine& m) { return m.on; });
    Line("");
    Line("VMs: " + std::to_string(machines_.size()) + ", running: " + std::to_string(on));
    for (size_t i = 0; i < machines_.size(); ++i) {
      if (i == view_.most) return Line("  and " + std::to_string(machines_.size() - i) + " more");
      const VirtualMachine& machine = machines_[i];
      Line("  " + machine.name + "  " + (machine.on ? "on" : "off") + "  " + machine.path);
      for (const auto& [device, vnic] : machine.vnics) {
        Line("    " + Padded(device, 8) + " VIF " + vnic.vif + " in [" +
             (vnic.ls.empty() ? vnic.port_group : vnic.ls) + "]" +
             (vnic.port.empty() ? "" : ", port " + vnic.port));
      }
    }
  }

  void DrawUnrealized() {
    Line("");
    std::vector<std::string> lines;
    const std::string id = Text(host_.get(), {"transportNodeId"});
    if (const auto sent = view_.manager.record().LastSent("HostConfigMsg")) {
      orlane::zem::switching::HostConfigMsg config;
      if (config.ParseFromString(*sent)) lines = DiffHost(config, id);
    }
    VifKnowledge knowledge{machines_, {}, std::nullopt, id};
    const cJSON* each = nullptr;
    cJSON_ArrayForEach(each, cJSON_GetObjectItemCaseSensitive(host_.get(), "interfaces")) {
      knowledge.interfaces.insert(Text(each, {"where", "vif"}));
    }
    if (view_.manager.vifs().serves()) knowledge.manager = view_.manager.vifs().Places();
    for (std::string& line : CheckVifs(knowledge)) lines.push_back(std::move(line));
    const std::vector<std::string> failed = FailedVnics();
    if (lines.empty() && failed.empty())
      return Line("realized: all that the manager wants, and all that runs");
    Line("not realized:");
    for (const std::string& line : lines) Line("  " + line);
    for (const std::string& line : failed) Line("  " + line);
    Line("why, as the daemon says:");
    const auto errors = view_.log.Find("level=\"ERROR\"", 0, kErrors);
    if (errors.empty()) Line("  nothing");
    for (const LogLine& error : errors) {
      const size_t begin = error.text.find("] ");
      Line("  " + error.text.substr(begin == std::string::npos ? 0 : begin + 2, kLongestError));
    }
  }

  // Lists the VMs that are off because their last port operation failed.
  std::vector<std::string> FailedVnics() const {
    std::map<std::string, VmStep> last;
    for (VmStep& step : view_.machines.Log("", 10000)) {
      // An operation id ending in "u" undoes a failed change; the failed step before it is the interesting
      // one.
      if (!step.op_id.ends_with('u')) last[step.vm + " " + step.device] = std::move(step);
    }
    std::vector<std::string> lines;
    for (const VirtualMachine& machine : machines_) {
      for (const auto& [device, vnic] : machine.vnics) {
        const auto found = last.find(machine.name + " " + device);
        if (found == last.end() || found->second.good()) continue;
        const VmStep& step = found->second;
        lines.push_back(found->first + ": " + step.op_id + ": " +
                        (step.problem.empty()
                             ? "status " + std::to_string(step.status) + " [" + step.text + "]"
                             : step.problem));
      }
    }
    return lines;
  }

  const NodeView& view_;
  const Json host_;
  const std::vector<VirtualMachine> machines_;
  std::map<std::string, std::string> names_;  // vNICs by the name that ports use
  std::string text_;
};

}  // namespace

std::string DrawNode(const NodeView& view) { return Picture(view).Draw(); }

}  // namespace zem::sim
