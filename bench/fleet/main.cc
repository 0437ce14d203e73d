// A fabric of many hosts before one manager: what a start of all hosts, a restart of the manager, another
// list of APHs, an outage of the stores and an upgrade put on the manager, and how long it is until every
// host is served again.
//
// bench_fleet [HOSTS] [STORY ...] [--curve FILE]     HOSTS: 1000; STORY: all of them, in order

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>
#include <stdexcept>

#include "sim/fleet/fleet_program.h"

int main(int argc, char** argv) {
  try {
    const zem::fleet::FleetOrder order = zem::fleet::ReadFleetOrder({argv + 1, argv + argc});
    for (const zem::fleet::StorySum& sum : zem::fleet::RunFleet(order, std::cout)) {
      // What the manager would take each second, were the same work spread evenly over the same seconds.
      if (sum.busy == 0) continue;
      const double even = static_cast<double>(sum.handshakes) / static_cast<double>(sum.busy);
      std::printf("fleet %s handshakes-per-s ours=%llu peer=%.0f ratio=%.2f\n", sum.story.c_str(),
                  static_cast<unsigned long long>(sum.handshake_peak), even,
                  even / static_cast<double>(std::max<uint64_t>(1, sum.handshake_peak)));
    }
    return 0;
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "bench_fleet: %s\nusage: bench_fleet [HOSTS] [STORY ...] [--curve FILE]\n",
                 error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_fleet: %s\n", error.what());
    return 1;
  }
}
