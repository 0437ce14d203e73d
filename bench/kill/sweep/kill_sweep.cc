#include "bench/kill/sweep/kill_sweep.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "bench/kill/sweep/sweep_node.h"
#include "platform/core/thread.h"

namespace zem::bench {
namespace {

using sim::Json;
using sim::NumberAt;
using sim::TextAt;

constexpr auto kLook = std::chrono::milliseconds(3);
// The follow-ups of an operation take some seconds of the node's time.
constexpr auto kCalm = std::chrono::milliseconds(300);
constexpr auto kLongestOperation = std::chrono::seconds(20);
constexpr int kLogLines = 3000;

Shape Rich() {
  Shape shape;
  shape.endpoints = 2;
  shape.two_uplinks = true;
  shape.third_switch = true;
  return shape;
}

Shape Changed() {
  Shape shape;
  shape.mtu = 1700;
  shape.second_router = true;
  return shape;
}

Shape WithInterface(Shape::Interface interface) {
  Shape shape;
  shape.interface = interface;
  return shape;
}

// The start state: configured, with a VM that must keep its ports.
void Base(SweepNode& node) {
  node.HaveInterface(false);
  node.BeConfigured({});
  node.HaveFewSwitches();
  node.vm().TurnBystander(true);
}

void BaseWithVm(SweepNode& node) {
  Base(node);
  node.HaveVm(true);
}

void Bare(SweepNode& node) {
  Base(node);
  node.HaveVm(false);
  node.vm().TurnBystander(false);
}

}  // namespace

struct KillSweep::Operation {
  const char* name;
  void (*prepare)(SweepNode&);
  void (*begin)(SweepNode&);
};

const std::vector<KillSweep::Operation>& KillSweep::Operations() {
  using Node = SweepNode&;
  using Interface = Shape::Interface;
  static const std::vector<Operation> operations = {
      {"start", BaseWithVm, [](Node n) { n.run().Restart(); }},
      {"first-config", [](Node n) { n.BeRemoved(); }, [](Node n) { n.manager().SendConfig({}); }},
      {"config-adds", BaseWithVm, [](Node n) { n.manager().SendConfig(Rich()); }},
      {"config-changes", BaseWithVm, [](Node n) { n.manager().SendConfig(Changed()); }},
      {"config-withdraws",
       [](Node n) {
         BaseWithVm(n);
         n.BeConfigured(Rich());
       },
       [](Node n) { n.manager().SendConfig({}); }},
      {"interface-in", BaseWithVm, [](Node n) { n.manager().SendConfig(WithInterface(Interface::kIn)); }},
      {"interface-out",
       [](Node n) {
         BaseWithVm(n);
         n.HaveInterface(true);
       },
       [](Node n) { n.manager().SendConfig(WithInterface(Interface::kOut)); }},
      {"performance", BaseWithVm,
       [](Node n) {
         Shape shape;
         shape.performance = true;
         n.manager().SendConfig(shape);
       }},
      {"removal", Bare, [](Node n) { n.manager().SendRemoval(); }},
      {"reset", Bare, [](Node n) { n.manager().Reset(); }},
      {"maintenance-on", Bare, [](Node n) { n.manager().SetMaintenance(true); }},
      {"maintenance-off",
       [](Node n) {
         Bare(n);
         n.manager().SetMaintenance(true);
         n.Settle();
       },
       [](Node n) { n.manager().SetMaintenance(false); }},
      {"switches-put", Base, [](Node n) { n.store().PutSwitches(); }},
      {"switches-delete",
       [](Node n) {
         Base(n);
         n.store().PutSwitches();
         n.Settle();
       },
       [](Node n) { n.store().DeleteSwitches(); }},
      {"manager-switch", Base, [](Node n) { n.manager().SendSwitch(); }},
      {"controllers", Base, [](Node n) { n.manager().SendControllers(); }},
      {"file-in", BaseWithVm, [](Node n) { n.host().MigrateByFile(true); }},
      {"file-out",
       [](Node n) {
         BaseWithVm(n);
         n.HaveInterface(true);
         // The manager's last configuration leaves the interface where the tool put it.
         n.BeConfigured({});
       },
       [](Node n) { n.host().MigrateByFile(false); }},
      {"power-on",
       [](Node n) {
         Base(n);
         n.HaveVm(false);
       },
       [](Node n) { n.vm().PowerOn(); }},
      {"power-off", BaseWithVm, [](Node n) { n.vm().PowerOff(); }},
      {"move", BaseWithVm, [](Node n) { n.vm().Move(); }},
      {"move-fail", BaseWithVm, [](Node n) { n.vm().FailMove(); }},
      {"live-out", BaseWithVm, [](Node n) { n.vm().LiveOut(); }},
      {"live-in",
       [](Node n) {
         Base(n);
         n.HaveVmAway();
       },
       [](Node n) { n.vm().LiveIn(); }},
      {"relocate", BaseWithVm, [](Node n) { n.vm().Relocate(); }},
      {"restore", BaseWithVm, [](Node n) { n.manager().RestoreVif(); }},
      {"busy-config", BaseWithVm,
       [](Node n) {
         n.store().PutSwitches();
         n.vm().Move();
         n.manager().SendConfig(Rich());
       }},
      {"busy-removal", Bare,
       [](Node n) {
         n.store().PutSwitchesUnheard();
         n.manager().SendRemoval();
       }},
      {"security-on",
       [](Node n) {
         Base(n);
         n.HaveSecurityPort(false);
       },
       [](Node n) { n.host().TieSecurityPort(true); }},
      {"bundle", Base, [](Node n) { n.services().AskForBundle(); }},
      {"neighbours", Base, [](Node n) { n.services().AskForNeighbours(); }},
      {"security-off",
       [](Node n) {
         Base(n);
         n.HaveSecurityPort(true);
       },
       [](Node n) { n.host().TieSecurityPort(false); }},
      {"capture", Base, [](Node n) { n.host().Capture(); }},
  };
  return operations;
}

std::vector<std::string> KillSweep::OperationNames() {
  std::vector<std::string> names;
  for (const Operation& operation : Operations()) names.emplace_back(operation.name);
  return names;
}

KillSweep::KillSweep(Options options)
    : options_(std::move(options)), random_(options_.seed), begin_(Clock::Process().Now()) {}

KillSweep::~KillSweep() = default;

SweepNode& KillSweep::Node() {
  if (!node_) node_ = std::make_unique<SweepNode>(options_.clock_factor);
  return *node_;
}

bool KillSweep::TimeIsUp() const {
  return std::chrono::duration<double>(Clock::Process().Now() - begin_).count() > options_.seconds;
}

int KillSweep::Run() {
  std::printf("%-18s %6s %6s %6s %6s %9s\n", "operation", "steps", "kills", "second", "ended", "failures");
  Row sum;
  for (const Operation& operation : Operations()) {
    const auto& wanted = options_.operations;
    if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), operation.name) == wanted.end()) continue;
    if (TimeIsUp()) break;
    Row row;
    RunOperation(operation, &row);
    Print(operation.name, row);
    sum.steps += row.steps;
    sum.kills += row.kills;
    sum.second_kills += row.second_kills;
    sum.ended_before += row.ended_before;
    sum.failures += row.failures;
  }
  Print("all", sum);
  std::printf("%.1f s\n", std::chrono::duration<double>(Clock::Process().Now() - begin_).count());
  return sum.failures;
}

void KillSweep::Print(const char* name, const Row& row) {
  std::printf("%-18s %6u %6d %6d %6d %9d\n", name, row.steps, row.kills, row.second_kills, row.ended_before,
              row.failures);
}

void KillSweep::RunOperation(const Operation& operation, Row* row) {
  try {
    row->steps = CountSteps(operation);
  } catch (const std::exception& error) {
    ++row->failures;
    Report(operation, {}, error.what());
    return;
  }
  const uint32_t last = options_.to != 0 ? options_.to : row->steps;
  uint32_t tried = 0;
  for (uint32_t step = options_.from; step <= last && !TimeIsUp(); step += options_.every) {
    for (const bool after : {false, true}) {
      if (after ? !options_.after : !options_.before) continue;
      Kill kill;
      kill.step = step;
      kill.after = after;
      ++tried;
      if (options_.second_at != 0) {
        kill.second = options_.second_at;
      } else if (options_.second_every != 0 && tried % options_.second_every == 0 && recovery_steps_ != 0) {
        kill.second = static_cast<uint32_t>(1 + random_() % recovery_steps_);
      }
      try {
        KillOnce(operation, &kill, row) ? ++row->kills : ++row->ended_before;
        if (options_.verbose) {
          std::printf("%s %s %u: %s %s\n", operation.name, after ? "after" : "before", step,
                      kill.name.c_str(), kill.second_name.c_str());
        }
      } catch (const std::exception& error) {
        ++row->kills;
        ++row->failures;
        Report(operation, kill, error.what());
      }
    }
  }
}

// Runs the operation without a kill.
uint32_t KillSweep::CountSteps(const Operation& operation) {
  SweepNode& node = Node();
  operation.prepare(node);
  node.run().node().Do("daemon/kill-at 0");
  operation.begin(node);
  AwaitDeath();
  const Json steps = node.run().node().Do("daemon/steps " + std::string(options_.list ? "4000" : "0"));
  node.run().node().Do("daemon/kill-at never");
  node.Settle();
  if (options_.list) {
    int number = 0;
    const cJSON* step = nullptr;
    cJSON_ArrayForEach(step, sim::At(steps.get(), "last")) {
      std::printf("%s %d: %s\n", operation.name, ++number, step->valuestring);
    }
  }
  const auto count = static_cast<uint32_t>(NumberAt(steps.get(), "steps"));
  if (count == 0) throw std::runtime_error("it has no steps");
  return count;
}

// Returns false when the operation was over, and the daemon served again, before it was killed.
bool KillSweep::AwaitDeath() {
  sim::NodeProcess& node = node_->run().node();
  const TimePoint begin = Clock::Process().Now();
  TimePoint ended{};
  for (;;) {
    if (cJSON_IsTrue(sim::At(node.Do("daemon/steps").get(), "killed")) != 0) {
      node.Do("daemon/wait 100");
      return true;
    }
    const TimePoint now = Clock::Process().Now();
    if (ended == TimePoint{} && node_->run().OperationsEnded() && node_->run().Serves()) ended = now;
    if (ended != TimePoint{} && now - ended > kCalm) return false;
    if (now - begin > kLongestOperation) return false;
    SleepFor(kLook);
  }
}

bool KillSweep::KillOnce(const Operation& operation, Kill* kill, Row* row) {
  SweepNode& node = Node();
  operation.prepare(node);
  node.run().node().Do("daemon/kill-at " + std::to_string(kill->step) + (kill->after ? " after" : " before"));
  operation.begin(node);
  const bool died = AwaitDeath();
  if (!died) {
    node.run().node().Do("daemon/kill-at never");
    node.Settle();
    return false;
  }
  kill->name = TextAt(node.run().node().Do("daemon/steps").get(), "step");
  node.run().node().Do("daemon/kill-at " + std::to_string(kill->second));
  node.run().node().Do("daemon/start");
  if (kill->second != 0 && AwaitDeath()) {
    ++row->second_kills;
    kill->second_name = TextAt(node.run().node().Do("daemon/steps").get(), "step");
    node.run().node().Do("daemon/start");
  }
  if (recovery_steps_ == 0 && kill->second_name.empty()) {
    AwaitDeath();
    recovery_steps_ = static_cast<uint32_t>(NumberAt(node.run().node().Do("daemon/steps").get(), "steps"));
  }
  node.run().node().Do("daemon/kill-at never");
  node.Settle();
  return true;
}

void KillSweep::Report(const Operation& operation, const Kill& kill, const std::string& problem) {
  std::string again = std::string("bench_kill sweep ") + operation.name;
  if (kill.step != 0) {
    again += " --from " + std::to_string(kill.step) + " --to " + std::to_string(kill.step) + " --when " +
             (kill.after ? "after" : "before") +
             (kill.second != 0 ? " --second-at " + std::to_string(kill.second) : " --second-every 0");
  }
  std::printf("FAILED %s, ", operation.name);
  if (kill.name.empty()) {
    std::printf("nobody killed");
  } else {
    std::printf("killed %s step %u [%s]", kill.after ? "after" : "before", kill.step, kill.name.c_str());
  }
  if (!kill.second_name.empty()) std::printf(" and in the recovery at [%s]", kill.second_name.c_str());
  std::printf(": %s\n  again: %s\n", problem.c_str(), again.c_str());
  if (!options_.logs.empty() && node_) {
    std::string name = options_.logs + "/" + operation.name + "-" + std::to_string(kill.step) +
                       (kill.after ? "-after" : "-before") + "-" + std::to_string(kill.second);
    try {
      const Json found = node_->run().node().Do("log/find . " + std::to_string(kLogLines));
      std::ofstream out(name);
      const cJSON* line = nullptr;
      cJSON_ArrayForEach(line, sim::At(found.get(), "lines")) out << TextAt(line, "text") << "\n";
      std::printf("  log: %s\n", name.c_str());
    } catch (const std::exception& error) {
      std::printf("  no log: %s\n", error.what());
    }
  }
  // Start again with a new node, because a damaged one would fail every following check.
  node_.reset();
}

}  // namespace zem::bench
