#include "bench/kill/sweep/sweep_vm.h"

#include <stdexcept>
#include <utility>

namespace zem::bench {
namespace {

using sim::Json;
using sim::NumberAt;
using sim::TextAt;

constexpr const char* kVifProperty = "com.orlane.port.extraConfig.vnic.external.id";
constexpr const char* kAnotherHost = "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a02";
constexpr const char* kNetworks[] = {"web", "app", "db"};

}  // namespace

bool SweepVm::IsOn(const std::string& vm) {
  return TextAt(run_.node().Do("vm show " + vm).get(), "power") == "on";
}

void SweepVm::Turn(bool on, const std::string& ls) {
  if (on != IsOn("vm")) run_.node().Do(std::string("vm ") + (on ? "power-on" : "power-off") + " vm");
  on_ = on;
  if (on && TextAt(run_.node().Do("vm show vm").get(), "vnics.eth0.ls") != ls)
    run_.node().Do("vm move vm eth0 " + ls);
}

void SweepVm::TakeAway() {
  const std::string path = Path();
  away_ = path.substr(0, path.rfind('/'));
  run_.node().Do("vm live-out vm");
  here_ = false;
  on_ = false;
  for (const char* const vnic : {"vif-0 web", "vif-1 db"}) {
    run_.node().Do(std::string("manager vif/place --host ") + kAnotherHost + " --path " + path + " " + vnic);
  }
}

void SweepVm::TurnBystander(bool on) {
  if (on == IsOn("still")) return;
  run_.node().Do(std::string("vm ") + (on ? "power-on" : "power-off") + " still");
  run_.node().Do("switch/clear-logs");
}

std::string SweepVm::Path() { return TextAt(run_.node().Do("vm show vm").get(), "path"); }

// A step of an operation of its own; an empty network means the vNIC's present one.
void SweepVm::DetachAgain(const std::string& device, const std::string& network) {
  run_.Insist("vm ask --opcode 2 again" + std::to_string(run_.NextNumber()) + "-1 vm " + device + " vif-" +
              device.back() + " " + network);
}

// After a failed operation, the host requests the removal of whatever is there and begins again.
void SweepVm::Heal() {
  if (IsOn("vm")) static_cast<void>(run_.node().Do("vm power-off vm"));
  for (const char* const network : kNetworks) {
    DetachAgain("eth0", network);
    DetachAgain("eth1", network);
  }
  if (on_) run_.Insist("vm power-on vm");
}

void SweepVm::Change(const std::string& command) {
  run_.Begin([command](Background::Node& node) { return node.Try(command); },
             [this](const std::string& reason) {
               if (!reason.empty()) Heal();
             });
}

void SweepVm::PowerOn() {
  on_ = true;
  run_.Run("vm power-on vm");
}

// The VM is off in any case; unanswered requests are repeated.
void SweepVm::PowerOff() {
  on_ = false;
  run_.Begin([](Background::Node& node) { return node.Try("vm power-off vm"); },
             [this](const std::string& reason) {
               if (reason.empty()) return;
               DetachAgain("eth0", "");
               DetachAgain("eth1", "");
             });
}

void SweepVm::Move() {
  run_.Begin([](Background::Node& node) { return node.Try("vm move vm eth0 app"); },
             [this](const std::string& reason) {
               if (reason.empty()) return;
               if (TextAt(run_.node().Do("vm show vm").get(), "vnics.eth0.ls") != "app")
                 return run_.Insist("vm move vm eth0 app");
               // The VM has arrived; whether it was detached at the other host is unknown.
               DetachAgain("eth0", "web");
             });
}

void SweepVm::FailMove() { Change("vm move-fail vm eth0 db"); }

void SweepVm::LiveOut() {
  const std::string path = Path();
  const std::string folder = path.substr(0, path.rfind('/'));
  run_.Begin([](Background::Node& node) { return node.Try("vm live-out vm"); },
             [this, folder](const std::string& reason) {
               away_ = folder;
               here_ = !reason.empty();
               on_ = here_;
               // The host aborts the move and runs the VM again.
               if (here_) run_.Insist("vm live-in " + folder);
             });
}

void SweepVm::LiveIn() {
  here_ = true;
  on_ = true;
  run_.Run("vm live-in " + away_);
}

void SweepVm::Relocate() {
  const std::string command = "vm relocate vm /var/datastore/place" + std::to_string(run_.NextNumber());
  run_.Begin([command](Background::Node& node) { return node.Try(command); },
             [this](const std::string& reason) {
               if (reason.empty()) return;
               // The manager has the VIF at the place that it left, and detaches it only from there.
               for (const char* const vnic : {"eth0", "eth1"}) {
                 run_.Insist("vm ask --opcode 8 again" + std::to_string(run_.NextNumber()) + "-1 vm " + vnic);
               }
               Heal();
             });
}

std::string SweepVm::Disagreement() {
  const Json check = run_.node().Do("vm check");
  const cJSON* line = nullptr;
  cJSON_ArrayForEach(line, sim::At(check.get(), "lines")) {
    // The VM of the port group is not in the host's list.
    if (std::string(line->valuestring).find("vif-s") == std::string::npos)
      return std::string("VMs: ") + line->valuestring;
  }
  if (here_ && IsOn("vm") != on_) return std::string("the VM is ") + (on_ ? "off" : "on");
  const Json broken = run_.node().Do("switch/violations");
  if (cJSON_GetArraySize(broken.get()) != 0) return "rules of the switch library:" + Lines(broken.get());
  const Json wrong = run_.node().Do("corvd/violations");
  if (NumberAt(wrong.get(), "count") != 0) return "answers:" + Lines(sim::At(wrong.get(), "list"));
  const Json open = run_.node().Do("corvd/outstanding");
  if (NumberAt(open.get(), "count") != 0) return "unanswered:" + Lines(sim::At(open.get(), "list"));
  return {};
}

// The bystander VM has to run, with its network behind each of its ports.
void SweepVm::CheckBystander() {
  const Json still = run_.node().Do("vm show still");
  for (const char* const device : {"eth0", "eth1"}) {
    const std::string port = TextAt(still.get(), std::string("vnics.") + device + ".port");
    if (port.empty()) continue;
    const Json calls = run_.node().Do("switch/calls " + port);
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

}  // namespace zem::bench
