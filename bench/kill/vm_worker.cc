#include "bench/kill/vm_worker.h"

#include <cjson/cJSON.h>

#include <array>
#include <stdexcept>
#include <utility>

#include "platform/core/thread.h"
#include "sim/scenario/node_process.h"

namespace zem::bench {
namespace {

constexpr auto kPatience = std::chrono::seconds(60);
constexpr auto kPause = std::chrono::milliseconds(200);
constexpr const char* kDevice = "eth0";

// Failures of this kind are faults of the daemon, whenever it was killed.
constexpr std::array kWrong = {"several ports", "plugFailed", "still holds", "any more"};

}  // namespace

VmWorker::VmWorker(const std::string& control, std::vector<Vm> vms, std::vector<std::string> switches,
                   uint64_t seed)
    : client_(control), vms_(std::move(vms)), switches_(std::move(switches)), random_(seed) {}

void VmWorker::Change() {
  Vm& vm = vms_[random_() % vms_.size()];
  if (!vm.on) return PowerOn(&vm);
  random_() % 3 == 0 ? PowerOff(&vm) : Move(&vm);
}

std::string VmWorker::Try(const std::string& command, sim::Json* result) {
  const sim::Json answer(cJSON_Parse(client_.Execute(command).c_str()));
  if (cJSON_IsTrue(sim::At(answer.get(), "ok")) == 0) {
    std::string reason = sim::TextAt(answer.get(), "error");
    return reason.empty() ? "no answer of the node" : reason;
  }
  if (result != nullptr) {
    result->reset(cJSON_DetachItemFromObjectCaseSensitive(answer.get(), "result"));
  }
  return {};
}

void VmWorker::Judge(const std::string& command, const std::string& reason) const {
  for (const char* const wrong : kWrong) {
    if (reason.find(wrong) != std::string::npos) throw std::runtime_error(command + ": " + reason);
  }
}

void VmWorker::Repeat(const std::function<std::string()>& next) {
  const TimePoint limit = Clock::Process().Now() + kPatience;
  for (;;) {
    const std::string command = next();
    const std::string reason = Try(command);
    if (reason.empty()) return;
    Judge(command, reason);
    if (Clock::Process().Now() > limit) throw std::runtime_error(command + ": to the end: " + reason);
    ++repeated_;
    SleepFor(kPause);
  }
}

void VmWorker::PowerOn(Vm* vm) {
  const std::string command =
      std::string("vm power-on --opcode ") + (random_() % 2 == 0 ? "1 " : "8 ") + vm->name;
  Repeat([&] { return command; });
  vm->on = true;
  ++attaches_;
}

// The VM is off in any case, and the manager and its ports have to know that.
void VmWorker::PowerOff(Vm* vm) {
  const std::string command = "vm power-off " + vm->name;
  const std::string reason = Try(command);
  vm->on = false;
  ++detaches_;
  if (reason.empty()) return;
  Judge(command, reason);
  DetachAgain(*vm, kDevice, vm->ls);
  DetachAgain(*vm, "eth1", "");
}

void VmWorker::Move(Vm* vm) {
  std::string to;
  do {
    to = switches_[random_() % switches_.size()];
  } while (to == vm->ls);
  const std::string command = "vm move " + vm->name + " " + kDevice + " " + to;
  const TimePoint limit = Clock::Process().Now() + kPatience;
  for (std::string reason = Try(command); !reason.empty(); reason = Try(command)) {
    Judge(command, reason);
    sim::Json shown;
    const std::string failed = Try("vm show " + vm->name, &shown);
    if (!failed.empty()) throw std::runtime_error(failed);
    if (sim::TextAt(shown.get(), std::string("vnics.") + kDevice + ".ls") == to) {
      // The VM has arrived; whether it was detached at the other host is unknown.
      DetachAgain(*vm, kDevice, vm->ls);
      break;
    }
    if (Clock::Process().Now() > limit) throw std::runtime_error(command + ": to the end: " + reason);
    ++repeated_;
    SleepFor(kPause);
  }
  vm->ls = to;
  ++moves_;
}

void VmWorker::DetachAgain(const Vm& vm, const std::string& device, const std::string& ls) {
  // A separate operation: no other step has its stem.
  sim::Json shown;
  const std::string failed = Try("vm show " + vm.name, &shown);
  if (!failed.empty()) throw std::runtime_error(failed);
  const std::string vif = sim::TextAt(shown.get(), "vnics." + device + ".vif");
  Repeat([&] {
    return "vm ask --opcode 2 again-" + vm.name + "-" + std::to_string(++asked_) + "-1 " + vm.name + " " +
           device + " " + vif + (ls.empty() ? "" : " " + ls);
  });
}

}  // namespace zem::bench
