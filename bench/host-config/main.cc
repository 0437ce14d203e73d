// Measures the agent's own share of a host configuration's time: the whole road, from the manager's request
// to its answer, against the part that the management script and the host's libraries took.
//
// bench_host-config [COUNT]

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "bench/build_folder.h"
#include "bench/host-config/road.h"
#include "sim/scenario/node_process.h"

namespace {

using zem::bench::Road;

constexpr int kCount = 50;
constexpr int kWarmUp = 5;
constexpr double kLimitMs = 5;
constexpr double kLimitShare = 0.10;

// The least time that a host's real management interface takes for one command.  The simulated one answers in
// a tenth of a millisecond, which no host does.
constexpr const char* kHostDelay = "0.005";

// One switch; its MTU and its endpoints differ from one configuration to the next.
std::string Message(int revision) {
  const bool odd = revision % 2 != 0;
  const std::string mtu = odd ? "1700" : "9000";
  const std::string second = odd ? "172.16.1.12" : "172.16.1.13";
  return R"(id: "c0000000-0000-4000-8000-000000000001" revision: ")" + std::to_string(revision) +
         R"(" transport_node_id: "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01" phase: PHASE2_COMBINED host_switches { )"
         R"(id: "502e6b1a-77c0-41aa-9d11-000000000001" name: "ks-1" type: 2 mtu: )" +
         mtu +
         R"( transport_zone_id: "a0000000-0000-4000-8000-0000000000a1" pnic { device_name: "vmnic1" uplink_name: )"
         R"("uplink-1" } pnic { device_name: "vmnic2" uplink_name: "uplink-2" } profiles { uplink_profile { )"
         R"(teaming_policy: TEAMING_POLICY_1 active_uplink { name: "uplink-1" } standby_uplink { name: "uplink-2" } )"
         R"(} } switch_mode: STANDARD overlay: true vteps { ipv4_address: "172.16.1.11" device_name: "knl10" } )"
         R"(vteps { ipv4_address: ")" +
         second +
         R"(" device_name: "knl11" } default_gateway: "172.16.1.1" subnet_mask: "255.255.255.0" )"
         R"(transport_vlan: 150 vtep_mtu: 1700 static_address: true vdr_mac: "02:50:56:56:44:52" })";
}

double Median(const std::vector<Road>& roads, double Road::*part) {
  std::vector<double> values;
  for (const Road& road : roads) values.push_back(road.*part);
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

// Figures for which smaller is better.
void Line(const char* name, const char* metric, double ours, double peer) {
  std::printf("host-config %s %s ours=%.3f peer=%.3f ratio=%.3f\n", name, metric, ours, peer,
              ours > 0 ? peer / ours : 0);
}

void Run(zem::sim::NodeProcess& node, const char* name, int count, int* revision) {
  for (int i = 0; i < kWarmUp; ++i) zem::bench::Measure(node, Message(++*revision));
  std::vector<Road> roads;
  std::vector<double> shares;
  for (int i = 0; i < count; ++i) {
    roads.push_back(zem::bench::Measure(node, Message(++*revision)));
    shares.push_back(roads.back().own / roads.back().total);
  }
  std::nth_element(shares.begin(), shares.begin() + shares.size() / 2, shares.end());
  const double total = Median(roads, &Road::total) * 1e3;
  const double own = Median(roads, &Road::own) * 1e3;
  std::printf(
      "%s: %d configurations, %d commands and %d calls each; medians: road %.3f ms, script %.3f ms, "
      "libraries %.3f ms, own %.3f ms (%.1f %%)\n",
      name, count, roads.back().commands, roads.back().calls, total, Median(roads, &Road::proxy) * 1e3,
      Median(roads, &Road::libraries) * 1e3, own, shares[shares.size() / 2] * 100);
  Line(name, "road_ms", total, total - own);
  Line(name, "own_ms_limit", own, kLimitMs);
  Line(name, "own_share_limit", shares[shares.size() / 2], kLimitShare);
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : kCount;
  if (count < 1) {
    std::fputs("usage: bench_host-config [COUNT]\n", stderr);
    return 2;
  }
  try {
    zem::sim::NodeProcess node(zem::bench::BuildFolder() + "/sim/node/zem-node",
                               {"--options", ZEM_BENCH_FILES "/host-config.xml"});
    node.Await("host processes", std::chrono::seconds(30),
               [](const cJSON* list) { return cJSON_GetArraySize(list) > 0; });
    node.Do("log/wait \"Received client registration ACK from MPA\" 30");
    int revision = 0;
    Run(node, "bare-script", count, &revision);
    node.Do(std::string("host fault/add late .* ") + kHostDelay + " --count 100000");
    Run(node, "host-like-script", count, &revision);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_host-config: %s\n", error.what());
    return 1;
  }
  return 0;
}
