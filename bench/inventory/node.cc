// A whole agent on a node with many VMs: its processor time for one full sync, from the manager's order until
// the manager's inventory is the host's.

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "bench/build_folder.h"
#include "bench/inventory/cases.h"
#include "sim/scenario/node_process.h"

namespace zem::bench {
namespace {

using sim::Json;
using sim::NodeProcess;
using sim::NumberAt;

constexpr std::chrono::seconds kPatience{120};
// The processor time that a full sync may take.
constexpr double kLimitSeconds = 1;

double ProcessorSecondsOf(NodeProcess& node) {
  const Json state = node.Do("daemon/state");
  return NumberAt(state.get(), "processor_ms") / 1e3;
}

void AwaitEqual(NodeProcess& node) {
  node.Await("inventory diff", kPatience, [](const cJSON* diff) { return NumberAt(diff, "count") == 0; });
}

// Time runs faster, since the agent sleeps between its steps; processor time does not.
void Measure(const char* name, const std::string& options, uint32_t vms) {
  const std::string build = BuildFolder();
  const std::string source = build + "/../../";
  NodeProcess node(build + "/sim/node/zem-node", {"--clock-factor", "10", "--options", source + options,
                                                  "--zema", source + "sim/scenarios/operation.json"});
  node.Do("log/wait \"Received client registration ACK from MPA\" 60");
  AwaitEqual(node);
  node.Do("vm create --count " + std::to_string(vms) + " vm eth0::web");
  AwaitEqual(node);
  const Json before = node.Do("inventory state");
  const double full_syncs = NumberAt(before.get(), "full_syncs");
  const double begun = ProcessorSecondsOf(node);
  node.Do("inventory forget");
  node.Do("inventory sync");
  node.Await("inventory state", kPatience,
             [full_syncs](const cJSON* state) { return NumberAt(state, "full_syncs") > full_syncs; });
  AwaitEqual(node);
  Line(name, "processor-s", ProcessorSecondsOf(node) - begun, kLimitSeconds);
}

}  // namespace

void MeasureFullSync(uint32_t vms) {
  Measure("full-sync", "bench/inventory/inventory.xml", vms);
  Measure("full-sync-with-debug-log", "sim/scenarios/realization.xml", vms);
}

}  // namespace zem::bench
