// The manager channel under load on the real clock and over real sockets: bench_soak [restarts|road|all]
// [SECONDS].  Exit code 1 when an invariant broke.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "bench/soak/cases.h"
#include "bench/soak/measures.h"

int main(int argc, char** argv) {
  const char* const which = argc > 1 ? argv[1] : "all";
  const int seconds = argc > 2 ? std::atoi(argv[2]) : 60;
  const bool all = std::strcmp(which, "all") == 0;
  const bool restarts = all || std::strcmp(which, "restarts") == 0;
  const bool road = all || std::strcmp(which, "road") == 0;
  if ((!restarts && !road) || seconds < 1) {
    std::fprintf(stderr, "bench_soak [restarts|road|all] [SECONDS]\n");
    return 2;
  }
  try {
    const zem::bench::LogCounter log;
    bool held = true;
    if (road) held = zem::bench::RunRoad() && held;
    if (restarts) held = zem::bench::RunRestarts(seconds) && held;
    return held ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_soak: %s\n", error.what());
    return 1;
  }
}
