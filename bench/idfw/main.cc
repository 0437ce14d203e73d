#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "bench/idfw/cases.h"
#include "bench/soak/measures.h"
#include "framework/log/logger.h"

int main(int argc, char** argv) {
  // In percent of the usual amount of work.
  const int percent = argc > 1 ? std::atoi(argv[1]) : 100;
  if (percent < 1 || percent > 100) {
    std::fprintf(stderr, "usage: bench_idfw [PERCENT]\n");
    return 2;
  }
  const zem::bench::LogCounter counter;
  zem::Logger::logLevel = zem::kLogInfo;
  const auto part = [percent](int whole) { return std::max(whole * percent / 100, 1); };
  bool good = zem::bench::RunEvents(static_cast<uint32_t>(part(50000)));
  good = zem::bench::RunBatches(part(100)) && good;
  good = zem::bench::RunLimit(static_cast<uint32_t>(part(100000))) && good;
  return good ? 0 : 1;
}
