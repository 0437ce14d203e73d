// The requests of the peers to the sweep's node, and how each peer reacts when the daemon was killed.

#include <stdexcept>

#include "bench/kill/sweep_node.h"
#include "platform/core/thread.h"
#include "sim/manager/random_config.h"

namespace zem::bench {
namespace {

using sim::Json;
using sim::NumberAt;
using sim::TextAt;

constexpr const char* kConfigId = "c0000000-0000-4000-8000-000000000001";
constexpr const char* kThirdZone = "a0000000-0000-4000-8000-0000000000a3";
constexpr const char* kNetwork = "b0000000-0000-4000-8000-0000000000b1";
constexpr const char* kOwnNetwork = "b0000000-0000-4000-8000-0000000000b9";
constexpr const char* kVif = "d0000000-0000-4000-8000-0000000000d1";
constexpr const char* kLogicalPort = "e0000000-0000-4000-8000-0000000000e1";
constexpr const char* kSendConfig = "manager send --timeout 120 SwitchingVertical HostConfigMsg '";
constexpr const char* kMigrationFile = "/tmp/zem/mvr_vnics_migration.json";
constexpr const char* kMigrationResult = "/tmp/zem/mvr_vnics_migration_result.txt";
constexpr auto kRepeat = std::chrono::seconds(2);
constexpr auto kPause = std::chrono::milliseconds(10);
constexpr uint32_t kSwitchesAtOnce = 12;
constexpr const char* kNetworks[] = {"web", "app", "db"};

std::string SwitchId(int number) { return "502e6b1a-77c0-41aa-9d11-00000000000" + std::to_string(number); }

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

std::string SwitchText(int number, const std::string& zone, bool overlay, const Shape& shape) {
  const std::string n = std::to_string(number);
  std::string text = " host_switches { id: " + Quoted(SwitchId(number)) + " name: \"ks-" + n +
                     "\" type: " + (overlay ? "2" : "1") + " mtu: " + std::to_string(shape.mtu) +
                     " transport_zone_id: " + Quoted(zone) + " pnic { device_name: \"vmnic" +
                     std::to_string(number * 2 - 1) + "\" uplink_name: \"u1\" }";
  // The host has no sixth one.
  if (shape.two_uplinks && number != 3) {
    text += " pnic { device_name: \"vmnic" + std::to_string(number * 2) + "\" uplink_name: \"u2\" }";
  }
  text += " profiles { uplink_profile { active_uplink { name: \"u1\" } standby_uplink { name: \"u2\" } }";
  if (shape.performance && number == 1) {
    text += " high_performance_profile { config { type: HIGH_PERFORMANCE_CONFIG_1 } }";
  }
  text += " }";
  if (!overlay) return text + " }";
  text += " overlay: true static_address: true transport_vlan: 150 default_gateway: \"172.16." + n +
          ".1\" subnet_mask: \"255.255.255.0\"";
  for (int i = 0; i < shape.endpoints; ++i) {
    text += " vteps { device_name: \"knl" + n + std::to_string(i) + "\" ipv4_address: \"172.16." + n + "." +
            std::to_string(10 + i) + "\" }";
  }
  if (number == 1) {
    text += std::string(" vdr_mac: \"02:50:56:56:44:5") + (shape.second_router ? "3" : "2") + "\"";
  }
  return text + " }";
}

std::string OwnSwitch(int operation) {
  return std::string(
             "manager send --no-wait SwitchingVertical LogicalSwitchMsg 'logical_switch_info { "
             "transport_zone_id: ") +
         Quoted(sim::kZones[1]) + " revision: 1 logical_switch_id: " + Quoted(kOwnNetwork) +
         " name: \"own\" operation: " + std::to_string(operation) + " path: \"/infra/segments/own\" }'";
}

}  // namespace

// --- The manager

std::string SweepNode::Message(const Shape& shape) const {
  std::string text = "id: " + Quoted(kConfigId) + " revision: " + Quoted(std::to_string(number_)) +
                     " transport_node_id: " + Quoted(kNodeId) + " phase: PHASE2_COMBINED" +
                     SwitchText(1, sim::kZones[0], true, shape) + SwitchText(2, sim::kZones[1], false, shape);
  if (shape.third_switch) text += SwitchText(3, kThirdZone, true, shape);
  if (shape.interface == Shape::Interface::kIn) {
    text += " qub_if_migration { to_lswitches { device: \"knl0\" lswitch_id: " + Quoted(kNetwork) +
            " host_switch_id: " + Quoted(SwitchId(2)) + " vif_id: " + Quoted(kVif) +
            " logical_port_id: " + Quoted(kLogicalPort) + " transport_zone_id: " + Quoted(sim::kZones[1]) +
            " } }";
  }
  if (shape.interface == Shape::Interface::kOut) {
    text +=
        " qub_if_migration { to_vsw_or_psw { device: \"knl0\" port_group: \"Management Network\" "
        "host_switch_id: " +
        Quoted(SwitchId(2)) + " } }";
  }
  return text;
}

void SweepNode::BeginSent() {
  acknowledged_ = false;
  Begin(
      [command = kSendConfig + sent_.back().text + "'"](Background::Node& node) {
        Json answer;
        const std::string reason = node.Try(command, &answer);
        if (!reason.empty()) return reason;
        const double code = NumberAt(answer.get(), "answer.host_config.error_code");
        return code == 0 ? std::string()
                         : "refused: " + TextAt(answer.get(), "answer.host_config.error_text");
      },
      [this](const std::string& reason) {
        if (reason.starts_with("refused")) throw std::runtime_error("the configuration was " + reason);
        acknowledged_ = reason.empty();
      });
}

void SweepNode::SendAgain() {
  const Sent again = sent_.back();
  sent_.push_back(again);
  const Json answer = node_.Do(kSendConfig + again.text + "'");
  if (NumberAt(answer.get(), "answer.host_config.error_code") != 0) {
    throw std::runtime_error("sent again, the configuration was refused: " +
                             TextAt(answer.get(), "answer.host_config.error_text"));
  }
  acknowledged_ = true;
}

void SweepNode::SendConfig(const Shape& shape) {
  ++number_;
  sent_.push_back({Message(shape), sim::ChecksumOf(kNodeId, kConfigId, std::to_string(number_))});
  if (shape.performance && !shape_.performance) performance_waits_ = true;
  shape_ = shape;
  configured_ = true;
  clean_ = false;
  if (shape.interface != Shape::Interface::kStays) interface_in_ = shape.interface == Shape::Interface::kIn;
  BeginSent();
}

void SweepNode::SendRemoval() {
  sent_.push_back({"id: " + Quoted(kConfigId) + " revision: \"-1\"", ""});
  configured_ = false;
  clean_ = true;
  ForgetSwitches();
  BeginSent();
}

// An operator repeats a command that was not answered.
void SweepNode::Reset() {
  configured_ = false;
  clean_ = true;
  ForgetSwitches();
  sent_.clear();
  Run("cli zema/reset");
}

void SweepNode::SetMaintenance(bool on) {
  maintenance_ = on;
  Run(std::string(
          "manager send --timeout 60 SwitchingVertical MaintenanceModeConfigMsg 'id: \"m1\" state: ") +
      (on ? "1'" : "0'"));
}

void SweepNode::SendSwitch() {
  const auto there = [](const cJSON* networks) { return cJSON_HasObjectItem(networks, kOwnNetwork) != 0; };
  Begin(
      [there](Background::Node& node) {
        const std::string reason = node.Try(OwnSwitch(0));
        return reason.empty() ? node.Until("host networks", there) : reason;
      },
      // Networks that the manager sent are not in the store, and the reading of the store at a start removes
      // them from the host.  The manager sees that by the checksum of the networks and sends them again.
      [this, there](const std::string&) {
        Again(OwnSwitch(0), there);
        Again(OwnSwitch(2), [there](const cJSON* networks) { return !there(networks); });
      });
}

void SweepNode::Again(const std::string& command, const std::function<bool(const cJSON*)>& good) {
  const TimePoint limit = Clock::Process().Now() + kPatience;
  while (!good(node_.Do("host networks").get())) {
    if (Clock::Process().Now() > limit) throw std::runtime_error("in vain: " + command);
    StoredChecksum();  // proves that the daemon can be reached
    node_.Do(command);
    const TimePoint next = Clock::Process().Now() + kRepeat;
    while (!good(node_.Do("host networks").get()) && Clock::Process().Now() < next) SleepFor(kPause);
  }
}

void SweepNode::SendControllers() {
  controller_ = "10.0.0." + std::to_string(1 + ++number_ % 200);
  const std::string list = "update { controller { ipv4_address: " + Quoted(controller_) +
                           " port: 1235 uuid { first: 1 second: 1 } ssl_enabled: false } }";
  node_.Do(
      "manager answer ControllerMgmtVertical request text 'type: \"com.orlane.zem.config.MpLcpMsg\" mp_lcp "
      "{ " +
      list + " }'");
  Begin(
      [list, server = "<server>" + controller_ + "</server>"](Background::Node& node) {
        const std::string reason =
            node.Try("manager send --no-wait --publish ControllerMgmtVertical MpLcpMsg '" + list + "'");
        if (!reason.empty()) return reason;
        return node.Until("host reloads 1", [&](const cJSON* result) {
          const cJSON* const last = cJSON_GetArrayItem(sim::At(result, "reloads"), 0);
          return TextAt(last, "content").find(server) != std::string::npos;
        });
      },
      // After a restart the daemon requests the list.
      [](const std::string&) {});
}

// --- The store

std::string SweepNode::NewSwitches() {
  const auto first = static_cast<uint32_t>(switches_.empty() ? 1 : *switches_.rbegin() + 1);
  ++barrier_;
  for (uint32_t i = 0; i < kSwitchesAtOnce; ++i) switches_.insert(first + i);
  return "switches/put " + std::to_string(kSwitchesAtOnce) + " " + std::to_string(barrier_) + " " +
         std::to_string(first) + " 2 " + std::to_string(barrier_);
}

void SweepNode::PutSwitches() { ChangeStore(NewSwitches()); }

void SweepNode::PutSwitchesUnheard() { node_.Do("store " + NewSwitches()); }

void SweepNode::DeleteSwitches() {
  const uint32_t first = *switches_.rbegin() + 1 - kSwitchesAtOnce;
  ++barrier_;
  for (uint32_t i = 0; i < kSwitchesAtOnce; ++i) switches_.erase(first + i);
  ChangeStore("switches/delete " + std::to_string(kSwitchesAtOnce) + " " + std::to_string(barrier_) + " " +
              std::to_string(first));
}

void SweepNode::ForgetSwitches() { forgotten_.merge(switches_); }

// The manager writes the switches again for a host that comes back.
void SweepNode::WriteForgottenSwitches() {
  const uint32_t first = *forgotten_.begin();
  const uint32_t count = *forgotten_.rbegin() + 1 - first;
  switches_.merge(forgotten_);
  forgotten_.clear();
  ++barrier_;
  ChangeStore("switches/put " + std::to_string(count) + " " + std::to_string(barrier_) + " " +
              std::to_string(first) + " 2 " + std::to_string(barrier_));
}

void SweepNode::HaveFewSwitches() {
  while (switches_.size() > size_t{2} * kSwitchesAtOnce) {
    DeleteSwitches();
    Settle();
  }
}

void SweepNode::ChangeStore(const std::string& change) {
  node_.Do("store " + change);
  Begin(
      [processed = "value: " + std::to_string(barrier_)](Background::Node& node) {
        return node.Until("store get 112", [&](const cJSON* objects) {
          return TextAt(cJSON_GetArrayItem(objects, 0), "object") == processed;
        });
      },
      [](const std::string&) {});
}

// --- The host

// A tool that got no result repeats its request with a new file.
void SweepNode::MigrateByFile(bool in) {
  interface_in_ = in;
  // The physical NICs move with it.
  changed_by_tool_ = !in;
  const std::string id = "move-" + std::to_string(++number_);
  const std::string where =
      in ? "\"logical_switch_id\": " + Quoted(kNetwork) + ", \"logical_port_id\": " + Quoted(kLogicalPort) +
               ", \"vif_id\": " + Quoted(kVif) + ", \"transport_zone_id\": " + Quoted(sim::kZones[1])
         : "\"port_group_name\": \"Management Network\"";
  const std::string file =
      "file/write " + std::string(kMigrationFile) + " '{\"request_id\": " + Quoted(id) +
      ", \"migrate_to_ndvs\": " + (in ? "true" : "false") +
      ", \"host_switches\": [{\"host_switch_id\": " + Quoted(SwitchId(2)) +
      (in ? ", \"pnics\": [{\"device_name\": \"vmnic3\", \"uplink_name\": \"u1\"}]" : "") +
      ", \"vnics\": [{\"vnic_id\": \"knl0\", " + where + "}]}]}'";
  const auto result = [id](const cJSON* read) {
    const std::string text = TextAt(read, "text");
    return text.find(Quoted(id)) != std::string::npos &&
           text.find("\"result\": \"Success\"") != std::string::npos;
  };
  node_.Do(file);
  const std::string look = std::string("file/read ") + kMigrationResult;
  Begin(
      [look, result](Background::Node& node) {
        const std::string reason = node.Try("cli zema/migration knl_pnic");
        return reason.empty() ? node.Until(look, result) : reason;
      },
      [this, file, look, result](const std::string& reason) {
        if (reason.empty()) return;
        node_.Do(file);
        Insist("cli zema/migration knl_pnic");
        node_.Await(look, kPatience, result);
      });
}

// Requests on the socket for vNICs of port groups get no answer: the host repeats those that were not carried
// out.
void SweepNode::TieSecurityPort(bool tied) {
  security_tied_ = tied;
  const std::string update =
      std::string("corvd/vnic 'operation: ") + (tied ? "1" : "0") +
      " vif_attachment { vif_id: \"vif-s\" origin_id: \"dvportgroup-7:" + kSecondSwitch +
      "\" logical_port_id: \"dvp-1\" gcf_path: \"/vm/s.cfg\" id: \"eth0\" }'";
  const std::string look = std::string("switch/ports ") + "ks-2 dvp-1";
  Begin(
      [update, look, tied](Background::Node& node) {
        const std::string reason = node.Try(update);
        return reason.empty() ? node.Until(look, [tied](const cJSON* p) { return IsTied(p) == tied; })
                              : reason;
      },
      [this, update](const std::string& reason) {
        if (!reason.empty()) Insist(update);
      });
}

void SweepNode::MakeSecurityPort() {
  const Json ports = node_.Do("switch/ports ks-2");
  if (sim::JsonText(ports.get()).find("dvp-1") == std::string::npos) node_.Do("switch/add-port ks-2 dvp-1");
}

bool SweepNode::IsTied(const cJSON* ports) {
  const std::string text = sim::JsonText(ports);
  return text.find("vif-s") != std::string::npos;
}

std::string SweepNode::VmPath() { return TextAt(node_.Do("vm show vm").get(), "path"); }

// A step of an operation of its own; an empty network means the vNIC's present one.
void SweepNode::DetachAgain(const std::string& device, const std::string& network) {
  Insist("vm ask --opcode 2 again" + std::to_string(++number_) + "-1 vm " + device + " vif-" + device.back() +
         " " + network);
}

// After a failed operation, the host requests the removal of whatever is there and begins again.
void SweepNode::HealVm() {
  if (VmOn("vm")) static_cast<void>(node_.Do("vm power-off vm"));
  for (const char* const network : kNetworks) {
    DetachAgain("eth0", network);
    DetachAgain("eth1", network);
  }
  if (vm_on_) Insist("vm power-on vm");
}

void SweepNode::ChangeVm(const std::string& command) {
  Begin([command](Background::Node& node) { return node.Try(command); },
        [this](const std::string& reason) {
          if (!reason.empty()) HealVm();
        });
}

void SweepNode::PowerOn() {
  vm_on_ = true;
  Run("vm power-on vm");
}

// The VM is off in any case; unanswered requests are repeated.
void SweepNode::PowerOff() {
  vm_on_ = false;
  Begin([](Background::Node& node) { return node.Try("vm power-off vm"); },
        [this](const std::string& reason) {
          if (reason.empty()) return;
          DetachAgain("eth0", "");
          DetachAgain("eth1", "");
        });
}

void SweepNode::Move() {
  Begin([](Background::Node& node) { return node.Try("vm move vm eth0 app"); },
        [this](const std::string& reason) {
          if (reason.empty()) return;
          if (TextAt(node_.Do("vm show vm").get(), "vnics.eth0.ls") != "app")
            return Insist("vm move vm eth0 app");
          // The VM has arrived; whether it was detached at the other host is unknown.
          DetachAgain("eth0", "web");
        });
}

void SweepNode::FailMove() { ChangeVm("vm move-fail vm eth0 db"); }

void SweepNode::LiveOut() {
  const std::string path = VmPath();
  const std::string folder = path.substr(0, path.rfind('/'));
  Begin([](Background::Node& node) { return node.Try("vm live-out vm"); },
        [this, folder](const std::string& reason) {
          away_ = folder;
          vm_here_ = !reason.empty();
          vm_on_ = vm_here_;
          // The host aborts the move and runs the VM again.
          if (vm_here_) Insist("vm live-in " + folder);
        });
}

void SweepNode::LiveIn() {
  vm_here_ = true;
  vm_on_ = true;
  Run("vm live-in " + away_);
}

void SweepNode::Relocate() {
  const std::string command = "vm relocate vm /var/datastore/place" + std::to_string(++number_);
  Begin([command](Background::Node& node) { return node.Try(command); },
        [this](const std::string& reason) {
          if (reason.empty()) return;
          // The manager has the VIF at the place that it left, and detaches it only from there.
          for (const char* const vnic : {"eth0", "eth1"}) {
            Insist("vm ask --opcode 8 again" + std::to_string(++number_) + "-1 vm " + vnic);
          }
          HealVm();
        });
}

void SweepNode::RestoreByManager() {
  const std::string state = "S" + std::to_string(++number_);
  Begin(
      [state](Background::Node& node) {
        const std::string reason = node.Try("manager vif/restore vif-0 " + state);
        if (!reason.empty()) return reason;
        return node.Until("manager vif/show vif-0",
                          [&](const cJSON* vif) { return TextAt(vif, "restored") == state; });
      },
      [this, state](const std::string& reason) {
        if (reason.empty()) return;
        StoredChecksum();  // proves that the daemon can be reached
        Insist("manager vif/restore vif-0 " + state);
        node_.Await("manager vif/show vif-0", kPatience,
                    [&](const cJSON* vif) { return TextAt(vif, "restored") == state; });
      });
}

void SweepNode::Restart() {
  Begin(
      [](Background::Node& node) {
        std::string reason = node.Try("daemon/kill KILL");
        if (reason.empty()) reason = node.Try("daemon/wait 100");
        if (reason.empty()) reason = node.Try("daemon/start");
        if (!reason.empty()) return reason;
        return node.Until("host-management",
                          [](const cJSON* state) { return cJSON_IsTrue(sim::At(state, "connected")) != 0; });
      },
      [](const std::string&) {});
}

}  // namespace zem::bench
