// The discovery agent under the inventory of a large host: reading what the inventory daemon says, making the
// manager's message of it, keeping the store's records, and a whole agent's full sync.
//
// bench_inventory [PERCENT]

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "bench/inventory/cases.h"

namespace zem::bench {

double Shortest(int rounds, const std::function<void()>& work) {
  double shortest = 1e9;
  for (int i = 0; i < rounds; ++i) {
    const double begun = ProcessorSeconds();
    work();
    shortest = std::min(shortest, ProcessorSeconds() - begun);
  }
  return shortest;
}

void Line(const char* name, const char* metric, double ours, double peer) {
  std::printf("inventory %s %s ours=%.2f peer=%.2f ratio=%.2f\n", name, metric, ours, peer, peer / ours);
}

}  // namespace zem::bench

int main(int argc, char** argv) {
  const double percent = argc > 1 ? std::atof(argv[1]) : 100;
  const auto part = [percent](double whole) {
    return std::max(100U, static_cast<uint32_t>(whole * percent / 100));
  };
  try {
    zem::bench::MeasureReplies(part(10'000));
    zem::bench::MeasureRecords(part(10'000));
    zem::bench::MeasureFullSync(part(10'000));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_inventory: %s\n", error.what());
    return 1;
  }
  return 0;
}
