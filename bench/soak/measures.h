#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace zem::bench {

using Instant = std::chrono::steady_clock::time_point;
inline Instant Now() { return std::chrono::steady_clock::now(); }

/// Processor time of the process so far, in seconds.
double CpuSeconds();

/// Resident memory of the process, in KiB.
uint64_t ResidentKib();

/// The smallest value that at least `share` (0 to 1) of the sorted `values` do not exceed; 0 when there are
/// none.
double Quantile(std::vector<double> values, double share);

/// One line of the result.  Without a peer or a limit `peer` is 0 and the ratio 1.
void PrintLine(const char* benchmark, const std::string& name, const std::string& metric, double ours,
               double peer = 0);

/// Counts the process's log lines instead of sending them to syslog, and discards their text.
class LogCounter {
 public:
  LogCounter();
  ~LogCounter();
  LogCounter(const LogCounter&) = delete;
  LogCounter& operator=(const LogCounter&) = delete;

  static uint64_t lines();
  /// Lines of level warning and above.
  static uint64_t bad_lines();
};

}  // namespace zem::bench
