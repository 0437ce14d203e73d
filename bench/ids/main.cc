// The event engine of intrusion detection, part by part, and whole.
//
// bench_ids [ROUNDS]

#include <cstdlib>
#include <exception>

#include "bench/ids/bench_ids.h"
#include "framework/log/logger.h"

int main(int argc, char** argv) {
  constexpr int kRounds = 5;
  const int rounds = argc > 1 ? std::atoi(argv[1]) : kRounds;
  if (rounds < 1) {
    std::fputs("usage: bench_ids [ROUNDS]\n", stderr);
    return 2;
  }
  zem::Logger::SetEmitter([](int, const char*) {});
  zem::Logger::logLevel = zem::kLogInfo;
  try {
    zem::bench::RunConsumer(rounds);
    zem::bench::RunLimiter(rounds);
    zem::bench::RunBatches(rounds);
    zem::bench::RunCaptures(rounds);
    zem::bench::RunReplacement(rounds);
    zem::bench::RunRoad(rounds);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_ids: %s\n", error.what());
    return 1;
  }
  return 0;
}
