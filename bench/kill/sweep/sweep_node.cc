#include "bench/kill/sweep/sweep_node.h"

#include <chrono>
#include <stdexcept>

#include "platform/core/thread.h"
#include "sim/manager/random_config.h"

namespace zem::bench {
namespace {

using sim::NumberAt;

constexpr auto kPause = std::chrono::milliseconds(10);

}  // namespace

SweepNode::SweepNode(int clock_factor) : run_(clock_factor) {
  sim::NodeProcess& node = run_.node();
  run_.AwaitServing();
  node.Await("manager state", SweepRun::kPatience, [](const cJSON* state) {
    return NumberAt(state, "served_app_inits.ControllerMgmtVertical") > 0 &&
           NumberAt(state, "served_app_inits.SwitchingVertical") > 0;
  });
  node.Do("switch/clear-logs");
  for (const char* const network : {"web", "app"})
    node.Do(std::string("manager vif/switch ") + network + " " + sim::kZones[0]);
  node.Do(std::string("manager vif/switch db ") + sim::kZones[1]);
  node.Do(std::string("manager vif/switch dvportgroup-7 ") + sim::kZones[1]);
  node.Do("vm create vm eth0:vif-0:web eth1:vif-1:db");
  node.Do("vm create still eth0:vif-2:web eth1:vif-3:db");
  manager_.SendControllers();
  Settle();
  BeConfigured({});
  store_.PutSwitches();
  Settle();
}

// --- States

void SweepNode::BeConfigured(const Shape& shape) {
  LeaveMaintenance();
  if (manager_.configured() && shape == manager_.shape()) return;
  manager_.SendConfig(shape);
  Settle();
  host_.MakeSecurityPort();
  if (!store_.forgotten()) return;
  store_.WriteForgottenSwitches();
  Settle();
}

void SweepNode::BeRemoved() {
  if (!manager_.configured()) return;
  HaveInterface(false);
  HaveVm(false);
  vm_.TurnBystander(false);
  HaveSecurityPort(false);
  manager_.SendRemoval();
  Settle();
}

void SweepNode::LeaveMaintenance() {
  if (!manager_.maintenance()) return;
  manager_.SetMaintenance(false);
  Settle();
}

void SweepNode::HaveVm(bool on) {
  if (!vm_.here()) {
    vm_.LiveIn();
    Settle();
  }
  vm_.Turn(on, "web");
}

void SweepNode::HaveVmAway() {
  if (!vm_.here()) return;
  HaveVm(true);
  vm_.TakeAway();
}

void SweepNode::HaveInterface(bool in) {
  if (in == host_.interface_in()) return;
  Shape shape = manager_.shape();
  shape.interface = in ? Shape::Interface::kIn : Shape::Interface::kOut;
  BeConfigured(shape);
}

void SweepNode::HaveFewSwitches() {
  while (store_.many()) {
    store_.DeleteSwitches();
    Settle();
  }
}

void SweepNode::HaveSecurityPort(bool tied) {
  if (tied == host_.security_tied()) return;
  host_.TieSecurityPort(tied);
  Settle();
}

// --- Back to quiet

void SweepNode::Settle() {
  run_.AwaitServing();
  // Whether the manager repeats a configuration is decided with the checksum, not here.
  run_.Finish();
  manager_.SettleConfig();
  const TimePoint limit = Clock::Process().Now() + SweepRun::kPatience;
  for (std::string text = Disagreement(); !text.empty(); text = Disagreement()) {
    if (Clock::Process().Now() > limit) throw std::runtime_error(text);
    SleepFor(kPause);
  }
  vm_.CheckBystander();
  manager_.CheckPerformance();
  // Each round reads the logs, so they are cleared.
  run_.node().Do("switch/clear-logs");
}

std::string SweepNode::Disagreement() {
  std::string text = manager_.Disagreement();
  if (text.empty()) text = store_.Disagreement(manager_.configured());
  if (text.empty()) text = vm_.Disagreement();
  if (text.empty() && manager_.configured()) text = host_.SecurityDisagreement();
  if (text.empty()) text = manager_.ControllersDisagreement();
  if (text.empty()) text = host_.CaptureDisagreement();
  if (text.empty()) text = services_.Disagreement();
  return text;
}

}  // namespace zem::bench
