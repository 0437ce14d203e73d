#include "bench/soak/measures.h"

#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>

#include "framework/log/logger.h"

namespace zem::bench {
namespace {

// The smallest value that is printed.
constexpr double kLeast = 0.01;

std::atomic<uint64_t> log_lines{0};
std::atomic<uint64_t> log_bad_lines{0};

void Count(int priority, const char*) {
  ++log_lines;
  if (LOG_PRI(priority) <= LOG_WARNING) ++log_bad_lines;
}

}  // namespace

double CpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

uint64_t ResidentKib() {
  std::ifstream statm("/proc/self/statm");
  uint64_t total = 0;
  uint64_t resident = 0;
  statm >> total >> resident;
  return resident * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE)) / 1024;
}

double Quantile(std::vector<double> values, double share) {
  if (values.empty()) return 0;
  const auto last = static_cast<double>(values.size() - 1);
  const auto place = values.begin() + static_cast<std::ptrdiff_t>(last * share);
  std::nth_element(values.begin(), place, values.end());
  return *place;
}

void PrintLine(const char* benchmark, const std::string& name, const std::string& metric, double ours,
               double peer) {
  std::printf("%s %s %s ours=%.2f peer=%.2f ratio=%.2f\n", benchmark, name.c_str(), metric.c_str(), ours,
              peer, peer > 0 ? peer / std::max(ours, kLeast) : 1.0);
  std::fflush(stdout);
}

LogCounter::LogCounter() {
  InstallLibraryLogBridge();
  Logger::SetEmitter(&Count);
}

LogCounter::~LogCounter() { Logger::SetEmitter(nullptr); }

uint64_t LogCounter::lines() { return log_lines; }

uint64_t LogCounter::bad_lines() { return log_bad_lines; }

}  // namespace zem::bench
