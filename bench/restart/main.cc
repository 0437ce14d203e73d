// A start with nothing to do: interfaces are attached, the daemon is killed and started again.  The calls
// that it then makes to the switches, and the time until it is healthy again, are compared with what the host
// needs for the reads and commands in them.
//
// bench_restart [INTERFACES]

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/build_folder.h"
#include "platform/core/thread.h"
#include "sim/scenario/node_process.h"

namespace {

using zem::sim::At;
using zem::sim::Json;
using zem::sim::NodeProcess;
using zem::sim::NumberAt;
using zem::sim::TextAt;

constexpr int kInterfaces = 1000;
constexpr auto kPatience = std::chrono::seconds(60);
constexpr const char* kHealth = "com.orlane.common.opaqueDvs.status.component.zema";

// Calls that change something, with the position of the changed object.
constexpr const char* kWrites[] = {"PortAdd",       "PortRemove",     "PortDataSet",   "PortDataClear",
                                   "HostPropSet",   "HostPropClear",  "GlobalPropSet", "GlobalPropClear",
                                   "SetTEPHA",      "SetKnlnicState", "TEPHARecover",  "PlumbVdr",
                                   "DisconnectVdr", "SetVMAC"};

double MonotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void SetUp(NodeProcess& node, int interfaces) {
  node.Do("log/wait \"zemaLum.py is ready\" 30");
  node.Do("log/wait \"Received client registration ACK from MPA\" 30");
  const Json answer = node.Do(
      "manager send --timeout 60 SwitchingVertical HostConfigMsg 'id: "
      "\"c0000000-0000-4000-8000-000000000001\" "
      "revision: \"1\" transport_node_id: \"5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01\" phase: PHASE2_COMBINED "
      "host_switches { id: \"502e6b1a-77c0-41aa-9d11-000000000001\" name: \"ks-1\" type: 2 mtu: 1700 "
      "transport_zone_id: \"zone-1\" pnic { device_name: \"vmnic1\" uplink_name: \"u1\" } profiles { "
      "uplink_profile { active_uplink { name: \"u1\" } } } overlay: true vteps { ipv4_address: "
      "\"172.16.1.11\" "
      "device_name: \"knl10\" } static_address: true default_gateway: \"172.16.1.1\" subnet_mask: "
      "\"255.255.255.0\" vdr_mac: \"02:50:56:56:44:52\" }'");
  if (NumberAt(answer.get(), "answer.host_config.error_code") != 0) {
    throw std::runtime_error("the host was not configured");
  }
  node.Do("manager vif/switch web zone-1");
  node.Await("host-management", kPatience,
             [](const cJSON* state) { return cJSON_IsTrue(At(state, "connected")) != 0; });
  node.Do("vm create --count " + std::to_string(interfaces) + " vm eth0::web");
  node.Do("vm power-on vm-*");
}

// The end of the call that reports the daemon as healthy to the switch.  During the start the switch shows it
// as unhealthy.
double HealthySince(NodeProcess& node) {
  double end = 0;
  const auto told_twice = [&end](const cJSON* calls) {
    int writes = 0;
    const cJSON* call = nullptr;
    cJSON_ArrayForEach(call, calls) {
      if (TextAt(call, "function").find("HostPropSet") == std::string::npos) continue;
      ++writes;
      end = NumberAt(call, "end");
    }
    return writes >= 2;
  };
  node.Await(std::string("switch/calls ") + kHealth, kPatience, told_twice);
  const Json list = node.Do("switch/list");
  const cJSON* const host = At(cJSON_GetArrayItem(list.get(), 0), "host");
  const cJSON* const value = cJSON_GetObjectItemCaseSensitive(host, kHealth);
  if (!cJSON_IsString(value) || std::string(value->valuestring) != "up") {
    throw std::runtime_error("the daemon is not healthy");
  }
  return end;
}

void AwaitResync(NodeProcess& node, double started) {
  node.Await("host resync-runs 5", kPatience, [started](const cJSON* runs) {
    const cJSON* run = nullptr;
    cJSON_ArrayForEach(run, At(runs, "runs")) {
      if (NumberAt(run, "start") > started && TextAt(run, "reply") == "ok") return true;
    }
    return false;
  });
}

double TimeIn(NodeProcess& node, const char* command, const char* begin, const char* end, double limit) {
  const Json list = node.Do(command);
  double sum = 0;
  const cJSON* entry = nullptr;
  cJSON_ArrayForEach(entry, list.get()) {
    if (NumberAt(entry, end) <= limit) sum += NumberAt(entry, end) - NumberAt(entry, begin);
  }
  return sum;
}

// Prints the writes, most of which have no effect, one per line.
int TellWrites(NodeProcess& node) {
  int count = 0;
  for (const char* const write : kWrites) {
    const Json calls = node.Do(std::string("switch/calls ") + write);
    const cJSON* call = nullptr;
    cJSON_ArrayForEach(call, calls.get()) {
      const std::string property = TextAt(call, "prop");
      std::printf("# wrote: %s %s %s length %d\n", TextAt(call, "function").c_str(),
                  TextAt(call, "port").c_str(), property.c_str(), static_cast<int>(NumberAt(call, "length")));
      // The health really goes down with the daemon's start and up again.
      if (property != kHealth) ++count;
    }
  }
  return count;
}

int Run(int interfaces) {
  NodeProcess node(zem::bench::BuildFolder() + "/sim/node/zem-node",
                   {"--options", ZEM_BENCH_FILES "/restart.xml", "--zema", ZEM_BENCH_FILES "/restart.json"});
  SetUp(node, interfaces);
  const std::string ports = std::string(cJSON_PrintUnformatted(node.Do("switch/ports").get()));
  node.Do("daemon/kill KILL");
  node.Do("daemon/wait 10");
  node.Do("switch/clear-logs");
  const double started = MonotonicSeconds();
  node.Do("daemon/start");
  const double healthy = HealthySince(node);
  const double library = TimeIn(node, "switch/calls", "start", "end", healthy);
  const double script = TimeIn(node, "host frames 1000", "in", "out", healthy) -
                        TimeIn(node, "host frames 1000", "in", "out", started);
  AwaitResync(node, started);
  const int writes = TellWrites(node);
  if (ports != cJSON_PrintUnformatted(node.Do("switch/ports").get())) {
    throw std::runtime_error("a port is not what it was");
  }
  const double up = healthy - started;
  std::printf("restart with-%d needless_writes ours=%d peer=%d ratio=%.2f\n", interfaces, writes, 0,
              1.0 / (1 + writes));
  std::printf("restart with-%d healthy_ms ours=%.1f peer=%.1f ratio=%.4f\n", interfaces, up * 1e3,
              (library + script) * 1e3, (library + script) / up);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const int interfaces = argc > 1 ? std::atoi(argv[1]) : kInterfaces;
  if (interfaces < 1) {
    std::fputs("usage: bench_restart [INTERFACES]\n", stderr);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    return Run(interfaces);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_restart: %s\n", error.what());
    return 1;
  }
}
