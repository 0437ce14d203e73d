// The node of the sweep: how it gets into a state, and what must be true of it at quiet.  The operations are
// in sweep_operations.cc.

#include "bench/kill/sweep_node.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "bench/build_folder.h"
#include "platform/core/thread.h"
#include "sim/manager/random_config.h"
#include "sim/store/logical_switches.h"

namespace zem::bench {
namespace {

using sim::Json;
using sim::NumberAt;
using sim::TextAt;

constexpr auto kPause = std::chrono::milliseconds(10);
constexpr auto kQuestion = std::chrono::milliseconds(300);
constexpr const char* kHealth = "com.orlane.common.opaqueDvs.status.component.zema";
constexpr const char* kPendingActions = "pendingUserActions\":\"maintenance_mode";
constexpr const char* kVifProperty = "com.orlane.port.extraConfig.vnic.external.id";
constexpr const char* kAnotherHost = "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a02";

std::string Lines(const cJSON* list) {
  std::string text;
  const cJSON* line = nullptr;
  cJSON_ArrayForEach(line, list) {
    char* const shown = cJSON_IsString(line) ? nullptr : cJSON_PrintUnformatted(line);
    text += "\n  " + std::string(shown != nullptr ? shown : line->valuestring);
    cJSON_free(shown);
  }
  return text;
}

}  // namespace

SweepNode::SweepNode(int clock_factor)
    : node_(BuildFolder() + "/sim/node/zem-node",
            {"--options", ZEM_KILL_FILES "/kill.xml", "--zema", ZEM_KILL_FILES "/sweep.json",
             "--clock-factor", std::to_string(clock_factor)}) {
  AwaitServing();
  node_.Await("manager state", kPatience, [](const cJSON* state) {
    return NumberAt(state, "served_app_inits.ControllerMgmtVertical") > 0 &&
           NumberAt(state, "served_app_inits.SwitchingVertical") > 0;
  });
  node_.Do("switch/clear-logs");
  for (const char* const network : {"web", "app"})
    node_.Do(std::string("manager vif/switch ") + network + " " + sim::kZones[0]);
  node_.Do(std::string("manager vif/switch db ") + sim::kZones[1]);
  node_.Do(std::string("manager vif/switch dvportgroup-7 ") + sim::kZones[1]);
  node_.Do("vm create vm eth0:vif-0:web eth1:vif-1:db");
  node_.Do("vm create still eth0:vif-2:web eth1:vif-3:db");
  SendControllers();
  Settle();
  BeConfigured({});
  PutSwitches();
  Settle();
}

// --- States

void SweepNode::BeConfigured(const Shape& shape) {
  LeaveMaintenance();
  if (configured_ && shape == shape_) return;
  SendConfig(shape);
  Settle();
  MakeSecurityPort();
  if (forgotten_.empty()) return;
  WriteForgottenSwitches();
  Settle();
}

void SweepNode::BeRemoved() {
  if (!configured_) return;
  HaveInterface(false);
  HaveVm(false);
  HaveBystander(false);
  HaveSecurityPort(false);
  SendRemoval();
  Settle();
}

void SweepNode::LeaveMaintenance() {
  if (!maintenance_) return;
  SetMaintenance(false);
  Settle();
}

bool SweepNode::VmOn(const std::string& vm) {
  return TextAt(node_.Do("vm show " + vm).get(), "power") == "on";
}

void SweepNode::HaveVm(bool on, const std::string& ls) {
  if (!vm_here_) {
    LiveIn();
    Settle();
  }
  if (on != VmOn("vm")) node_.Do(std::string("vm ") + (on ? "power-on" : "power-off") + " vm");
  vm_on_ = on;
  if (on && TextAt(node_.Do("vm show vm").get(), "vnics.eth0.ls") != ls) node_.Do("vm move vm eth0 " + ls);
}

void SweepNode::HaveVmAway() {
  if (!vm_here_) return;
  HaveVm(true);
  const std::string path = VmPath();
  away_ = path.substr(0, path.rfind('/'));
  node_.Do("vm live-out vm");
  vm_here_ = false;
  vm_on_ = false;
  for (const char* const vnic : {"vif-0 web", "vif-1 db"}) {
    node_.Do(std::string("manager vif/place --host ") + kAnotherHost + " --path " + path + " " + vnic);
  }
}

void SweepNode::HaveBystander(bool on) {
  if (on == VmOn("still")) return;
  node_.Do(std::string("vm ") + (on ? "power-on" : "power-off") + " still");
  node_.Do("switch/clear-logs");
}

void SweepNode::HaveInterface(bool in) {
  if (in == interface_in_) return;
  Shape shape = shape_;
  shape.interface = in ? Shape::Interface::kIn : Shape::Interface::kOut;
  BeConfigured(shape);
}

void SweepNode::HaveSecurityPort(bool tied) {
  if (tied == security_tied_) return;
  TieSecurityPort(tied);
  Settle();
}

// --- Back to quiet

void SweepNode::Begin(Background::Work work, std::function<void(const std::string&)> finish) {
  running_.push_back({std::make_unique<Background>(node_.directory(), std::move(work)), std::move(finish)});
}

bool SweepNode::OperationsEnded() const {
  return std::all_of(running_.begin(), running_.end(), [](const Running& each) { return each.work->done(); });
}

void SweepNode::Run(const std::string& command) {
  Begin([command](Background::Node& node) { return node.Try(command); },
        [this, command](const std::string& reason) {
          if (!reason.empty()) Insist(command);
        });
}

void SweepNode::Insist(const std::string& command) {
  node_.Await(command, kPatience, [](const cJSON*) { return true; });
}

bool SweepNode::Serves() {
  return cJSON_IsTrue(sim::At(node_.Do("host-management").get(), "connected")) != 0;
}

void SweepNode::AwaitServing() {
  try {
    node_.Await("host-management", kPatience,
                [](const cJSON* state) { return cJSON_IsTrue(sim::At(state, "connected")) != 0; });
  } catch (const std::runtime_error&) {
    const Json state = node_.Do("daemon/state");
    if (cJSON_IsTrue(sim::At(state.get(), "running")) != 0) throw;
    throw std::runtime_error("the daemon ended by itself: " +
                             TextAt(node_.Do("daemon/wait 1").get(), "ended_by"));
  }
}

void SweepNode::Settle() {
  AwaitServing();
  // Whether the manager repeats a configuration is decided with the checksum (SettleConfig).
  for (Running& each : std::exchange(running_, {})) each.finish(each.work->End());
  SettleConfig();
  const TimePoint limit = Clock::Process().Now() + kPatience;
  for (std::string text = Disagreement(); !text.empty(); text = Disagreement()) {
    if (Clock::Process().Now() > limit) throw std::runtime_error(text);
    SleepFor(kPause);
  }
  CheckBystander();
  CheckPerformance();
  // Each round reads the logs, so they are cleared.
  node_.Do("switch/clear-logs");
}

std::string SweepNode::StoredChecksum() { return checksum_.Ask(kQuestion, kPatience); }

void SweepNode::AwaitClean() {
  node_.Await("switch/list", kPatience, [](const cJSON* list) { return cJSON_GetArraySize(list) == 0; });
  node_.Await("host networks count", kPatience,
              [](const cJSON* result) { return NumberAt(result, "networks") == 0; });
}

// The host has to match the checksum before any request is repeated.
void SweepNode::SettleConfig() {
  if (sent_.empty()) return;
  const std::string stored = StoredChecksum();
  const auto found =
      std::find_if(sent_.rbegin(), sent_.rend(), [&](const Sent& sent) { return sent.checksum == stored; });
  if (std::exchange(changed_by_tool_, false)) {
    acknowledged_ = false;
  } else if (stored.empty()) {
    AwaitClean();
  } else if (found == sent_.rend()) {
    throw std::runtime_error("the stored configuration is not in force, or none that was sent");
  } else {
    node_.Await("diff " + std::to_string(found - sent_.rbegin()), kPatience,
                [](const cJSON* diff) { return NumberAt(diff, "count") == 0; });
  }
  if (acknowledged_ && stored == sent_.back().checksum) return;
  SendAgain();
  if (StoredChecksum() != sent_.back().checksum) {
    throw std::runtime_error("the configuration was answered with success, and the checksum differs");
  }
}

std::string SweepNode::HostDisagreement() {
  if (clean_) {
    const Json switches = node_.Do("switch/list");
    if (cJSON_GetArraySize(switches.get()) != 0)
      return "a removed host has switches:" + Lines(switches.get());
  } else {
    const Json diff = node_.Do("diff");
    if (NumberAt(diff.get(), "count") != 0) return "the host differs:" + Lines(sim::At(diff.get(), "lines"));
  }
  const std::string kind = TextAt(node_.Do("host show interfaces").get(), "knl0.where.kind");
  if (kind != (interface_in_ ? "logical" : "standard")) return "the management interface is " + kind;
  const std::string health = maintenance_ ? "down" : "up";
  const Json switches = node_.Do("switch/list");
  const cJSON* each = nullptr;
  cJSON_ArrayForEach(each, switches.get()) {
    const cJSON* const host = sim::At(each, "host");
    const char* const shown = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(host, kHealth));
    if (shown == nullptr || shown != health) {
      return "switch [" + TextAt(each, "name") + "] shows the health [" + (shown == nullptr ? "" : shown) +
             "] instead of [" + health + "]";
    }
  }
  const Json files = node_.Do("file/list /etc/orlane/zema");
  cJSON_ArrayForEach(each, files.get()) {
    const std::string name = each->valuestring;
    // A draft is overwritten when the file is written next.
    if (name.ends_with(".tmp") || (name == "host_config.bin" && configured_)) continue;
    if (name == "host_config_mmode.bin" && configured_) continue;
    return "left over: " + name;
  }
  return {};
}

std::string SweepNode::NetworksDisagreement() {
  std::set<std::string> wanted;
  std::set<std::string> allowed;
  if (configured_) {
    for (const uint32_t number : switches_) wanted.insert(sim::LogicalSwitchUuid(number));
    for (const uint32_t number : forgotten_) allowed.insert(sim::LogicalSwitchUuid(number));
  }
  std::set<std::string> had;
  const Json networks = node_.Do("host networks");
  const cJSON* each = nullptr;
  cJSON_ArrayForEach(each, networks.get()) had.insert(each->string);
  for (const std::string& uuid : wanted) {
    if (had.count(uuid) == 0) return "lacks network " + uuid;
  }
  for (const std::string& uuid : had) {
    if (wanted.count(uuid) == 0 && allowed.count(uuid) == 0) return "has network " + uuid + " without reason";
  }
  if (!configured_ || barrier_ == 0 || !forgotten_.empty()) return {};
  const Json objects = node_.Do("store get 112");
  const std::string processed = TextAt(cJSON_GetArrayItem(objects.get(), 0), "object");
  if (processed == "value: " + std::to_string(barrier_)) return {};
  return "the processed barrier is [" + processed + "] instead of " + std::to_string(barrier_);
}

std::string SweepNode::PeersDisagreement() {
  const Json check = node_.Do("vm check");
  const cJSON* line = nullptr;
  cJSON_ArrayForEach(line, sim::At(check.get(), "lines")) {
    // The VM of the port group is not in the host's list.
    if (std::string(line->valuestring).find("vif-s") == std::string::npos)
      return std::string("VMs: ") + line->valuestring;
  }
  if (vm_here_ && VmOn("vm") != vm_on_) return std::string("the VM is ") + (vm_on_ ? "off" : "on");
  const Json broken = node_.Do("switch/violations");
  if (cJSON_GetArraySize(broken.get()) != 0) return "rules of the switch library:" + Lines(broken.get());
  const Json wrong = node_.Do("corvd/violations");
  if (NumberAt(wrong.get(), "count") != 0) return "answers:" + Lines(sim::At(wrong.get(), "list"));
  const Json open = node_.Do("corvd/outstanding");
  if (NumberAt(open.get(), "count") != 0) return "unanswered:" + Lines(sim::At(open.get(), "list"));
  return {};
}

// The bystander VM has to run, with its network behind each of its ports.
void SweepNode::CheckBystander() {
  const Json still = node_.Do("vm show still");
  for (const char* const device : {"eth0", "eth1"}) {
    const std::string port = TextAt(still.get(), std::string("vnics.") + device + ".port");
    if (port.empty()) continue;
    const Json calls = node_.Do("switch/calls " + port);
    const cJSON* call = nullptr;
    cJSON_ArrayForEach(call, calls.get()) {
      const std::string text = cJSON_IsString(call) ? call->valuestring : sim::JsonText(call);
      const bool removed = text.find("PortRemove") != std::string::npos;
      const bool cleared =
          text.find("PortDataClear") != std::string::npos && text.find(kVifProperty) != std::string::npos;
      if (removed || cleared) throw std::runtime_error("a VM that nobody touched lost its network: " + text);
    }
  }
}

// Settings that wait for the host's maintenance mode are reported on the switch, and applied when it comes.
void SweepNode::CheckPerformance() {
  if (!std::exchange(performance_waits_, false)) return;
  const auto waits = [](const cJSON* switches) {
    return sim::JsonText(switches).find(kPendingActions) != std::string::npos;
  };
  node_.Await("switch/list", kPatience, waits);
  node_.Do("host set maintenance true");
  node_.Await("switch/list", kPatience, [waits](const cJSON* switches) { return !waits(switches); });
  node_.Do("host set maintenance false");
}

std::string SweepNode::SecurityDisagreement() {
  if (!configured_) return {};
  const Json ports = node_.Do("switch/ports ks-2 dvp-1");
  if (IsTied(ports.get()) != security_tied_) return "the port of the port group is" + Lines(ports.get());
  const Json vifs = node_.Do("manager vif/list dvportgroup-7");
  if ((NumberAt(vifs.get(), "count") != 0) != security_tied_) return "the manager has" + Lines(vifs.get());
  return {};
}

std::string SweepNode::ControllersDisagreement() {
  if (controller_.empty()) return {};
  const std::string file = TextAt(node_.Do("file/read /etc/orlane/zem/controller-info.xml").get(), "text");
  if (file.find("<server>" + controller_ + "</server>") == std::string::npos) {
    return "the file of the controllers lacks " + controller_ + ": " + file;
  }
  const Json reloads = node_.Do("host reloads 1");
  const std::string read = TextAt(cJSON_GetArrayItem(sim::At(reloads.get(), "reloads"), 0), "content");
  if (read != file) return "the proxy process has not read the file of the controllers";
  return {};
}

std::string SweepNode::Disagreement() {
  std::string text = HostDisagreement();
  if (text.empty()) text = NetworksDisagreement();
  if (text.empty()) text = PeersDisagreement();
  if (text.empty()) text = SecurityDisagreement();
  if (text.empty()) text = ControllersDisagreement();
  return text;
}

}  // namespace zem::bench
