// What guests do, from their threads to the brokers, and what alerts ask meanwhile.

#include <algorithm>
#include <cstdlib>
#include <exception>

#include "bench/flow/cases.h"
#include "framework/log/logger.h"

int main(int argc, char** argv) {
  zem::Logger::SetEmitter([](int, const char*) {});
  zem::Logger::logLevel = zem::kLogInfo;
  const int percent = argc > 1 ? std::max(1, std::atoi(argv[1])) : 100;
  try {
    zem::bench::MeasureEvents(percent);
    zem::bench::MeasureReports(percent);
    zem::bench::MeasureTenants(percent);
    zem::bench::MeasureRecords(percent);
    zem::bench::MeasureReplacement(percent);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_flow: %s\n", error.what());
    return 1;
  }
  return 0;
}
