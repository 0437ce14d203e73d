#pragma once

#include <array>
#include <string>
#include <string_view>

#include "platform/metrics/metric_table.h"
#include "platform/metrics/metrics.h"

namespace zem::metrics {

/// The process's figure of a row of the table, for code that has no provider at hand.  It lives as long as
/// the process: whoever counts often keeps the reference.  `label` is the label's value.
///
/// Threads: any.  The look-up takes a lock, the counting none.
Counter& CounterOf(MetricId id, std::string_view label = {});
Gauge& GaugeOf(MetricId id, std::string_view label = {});
Latency& LatencyOf(MetricId id, std::string_view label = {});

/// Measures from construction to destruction.
class CallTimer {
 public:
  CallTimer(MetricId latency, std::string_view label) : CallTimer(LatencyOf(latency, label)) {}
  explicit CallTimer(Latency& latency) : latency_(latency), begin_(Clock::Process().Now()) {}
  ~CallTimer() { latency_.Record(Clock::Process().Now() - begin_); }
  CallTimer(const CallTimer&) = delete;
  CallTimer& operator=(const CallTimer&) = delete;

 private:
  Latency& latency_;
  const TimePoint begin_;
};

/// Writes metrics in the Prometheus text form.  Rows come in the order of the table; a row without a value is
/// left out.
class MetricWriter {
 public:
  void WriteCounter(MetricId id, std::string_view label, uint64_t value);
  void WriteGauge(MetricId id, std::string_view label, double value);
  void WriteHistogram(MetricId id, std::string_view label, const Latency& latency);
  /// All figures of the functions above.
  void WriteProcessFigures();

  std::string Text() const;

 private:
  std::string& Place(MetricId id);

  std::array<std::string, static_cast<size_t>(MetricId::kCount)> rows_;
};

}  // namespace zem::metrics
