#include "platform/metrics/process_metrics.h"

#include <cinttypes>
#include <cstdio>

namespace zem::metrics {
namespace {

constexpr std::string_view kOther = "other";
constexpr size_t kIds = static_cast<size_t>(MetricId::kCount);

// The buckets that are shown, as powers of two of a microsecond: 64 us to 67 s.
constexpr size_t kFirstBucket = 6;
constexpr size_t kLastBucket = 26;
constexpr size_t kBucketStep = 2;
constexpr double kMicro = 1e-6;

template <class T>
using Figures = std::array<std::map<std::string, T, std::less<>>, kIds>;

// Never destroyed: threads count until the process ends.
struct Process {
  std::mutex mutex;  // guards the tables, not the figures
  Figures<Counter> counters;
  Figures<Gauge> gauges;
  Figures<Latency> latencies;
};

Process& TheProcess() {
  static Process& process = *new Process();
  return process;
}

template <class T>
T& Find(Figures<T> Process::*table, MetricId id, std::string_view label) {
  Process& process = TheProcess();
  const std::lock_guard lock(process.mutex);
  auto& values = (process.*table)[static_cast<size_t>(id)];
  if (const auto found = values.find(label); found != values.end()) return found->second;
  const std::string_view name = values.size() < kMostLabelValues ? label : kOther;
  return values.try_emplace(std::string(name)).first->second;
}

std::string Number(double value) {
  std::array<char, 40> text;
  std::snprintf(text.data(), text.size(), "%.15g", value);
  return text.data();
}

void AppendEscaped(std::string_view text, std::string* out) {
  for (const char c : text) {
    if (c == '\\' || c == '"') *out += '\\';
    if (c == '\n') {
      *out += "\\n";
    } else {
      *out += c;
    }
  }
}

// {label="value",le="1"}
std::string Labels(const MetricRow& row, std::string_view label, std::string_view bound) {
  std::string text;
  if (!row.label.empty()) {
    text += std::string(row.label) + "=\"";
    AppendEscaped(label, &text);
    text += '"';
  }
  if (!bound.empty()) text += (text.empty() ? "" : ",") + std::string("le=\"") + std::string(bound) + "\"";
  return text.empty() ? text : "{" + text + "}";
}

constexpr std::array kKindWords = {"counter", "gauge", "histogram"};

}  // namespace

Counter& CounterOf(MetricId id, std::string_view label) { return Find(&Process::counters, id, label); }
Gauge& GaugeOf(MetricId id, std::string_view label) { return Find(&Process::gauges, id, label); }
Latency& LatencyOf(MetricId id, std::string_view label) { return Find(&Process::latencies, id, label); }

std::string& MetricWriter::Place(MetricId id) {
  std::string& place = rows_[static_cast<size_t>(id)];
  if (place.empty()) {
    const MetricRow& row = RowOf(id);
    const std::string name(row.name);
    place = "# HELP " + name + " " + std::string(row.help) + "\n# TYPE " + name + " " +
            kKindWords.at(static_cast<size_t>(row.kind)) + "\n";
  }
  return place;
}

void MetricWriter::WriteCounter(MetricId id, std::string_view label, uint64_t value) {
  std::string& place = Place(id);
  const MetricRow& row = RowOf(id);
  place += std::string(row.name) + Labels(row, label, {}) + " " + std::to_string(value) + "\n";
}

void MetricWriter::WriteGauge(MetricId id, std::string_view label, double value) {
  std::string& place = Place(id);
  const MetricRow& row = RowOf(id);
  place += std::string(row.name) + Labels(row, label, {}) + " " + Number(value) + "\n";
}

void MetricWriter::WriteHistogram(MetricId id, std::string_view label, const Latency& latency) {
  std::string& place = Place(id);
  const MetricRow& row = RowOf(id);
  const std::string name(row.name);
  const Latency::Reading reading = latency.Read();
  uint64_t below = 0;
  size_t bucket = 0;
  for (size_t bound = kFirstBucket; bound <= kLastBucket; bound += kBucketStep) {
    for (; bucket <= bound; ++bucket) below += reading.buckets[bucket];
    const double seconds = static_cast<double>(uint64_t{1} << bound) * kMicro;
    place += name + "_bucket" + Labels(row, label, Number(seconds)) + " " + std::to_string(below) + "\n";
  }
  place += name + "_bucket" + Labels(row, label, "+Inf") + " " + std::to_string(reading.count) + "\n";
  place += name + "_sum" + Labels(row, label, {}) + " " +
           Number(static_cast<double>(reading.sum_us) * kMicro) + "\n";
  place += name + "_count" + Labels(row, label, {}) + " " + std::to_string(reading.count) + "\n";
}

void MetricWriter::WriteProcessFigures() {
  Process& process = TheProcess();
  const std::lock_guard lock(process.mutex);
  for (const MetricRow& row : kMetricRows) {
    const auto at = static_cast<size_t>(row.id);
    for (const auto& [label, counter] : process.counters[at]) WriteCounter(row.id, label, counter.value());
    for (const auto& [label, gauge] : process.gauges[at])
      WriteGauge(row.id, label, static_cast<double>(gauge.value()));
    for (const auto& [label, latency] : process.latencies[at]) WriteHistogram(row.id, label, latency);
  }
}

std::string MetricWriter::Text() const {
  std::string text;
  for (const std::string& row : rows_) text += row;
  return text;
}

}  // namespace zem::metrics
