#pragma once

#include <cstdio>

namespace zem::bench {

/// Prints a result; a ratio above 1 means that ours is better.  `more_is_better` for rates.
inline void Print(const char* name, const char* metric, double ours, double peer, bool more_is_better) {
  std::printf("flow %s %s ours=%.2f peer=%.2f ratio=%.2f\n", name, metric, ours, peer,
              more_is_better ? ours / peer : peer / ours);
  std::fflush(stdout);
}

/// Each does `percent` of the usual amount of work.  They throw std::runtime_error when something is lost.
void MeasureEvents(int percent);
void MeasureReports(int percent);
void MeasureRecords(int percent);
void MeasureReplacement(int percent);
void MeasureTenants(int percent);

}  // namespace zem::bench
