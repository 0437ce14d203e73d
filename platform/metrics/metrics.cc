#include "platform/metrics/metrics.h"

#include <bit>

namespace zem::metrics {

void Latency::Record(Duration duration) {
  const auto us = static_cast<uint64_t>(
      std::max<int64_t>(0, std::chrono::duration_cast<std::chrono::microseconds>(duration).count()));
  count_.fetch_add(1, std::memory_order_relaxed);
  sum_us_.fetch_add(us, std::memory_order_relaxed);
  uint64_t seen = max_us_.load(std::memory_order_relaxed);
  while (us > seen && !max_us_.compare_exchange_weak(seen, us, std::memory_order_relaxed)) {
  }
  const size_t bucket = std::min<size_t>(static_cast<size_t>(std::bit_width(us)), kBuckets - 1);
  buckets_[bucket].fetch_add(1, std::memory_order_relaxed);
}

uint64_t Latency::QuantileUs(double share) const {
  const auto wanted = static_cast<uint64_t>(share * static_cast<double>(count()));
  uint64_t seen = 0;
  for (size_t i = 0; i < kBuckets; ++i) {
    seen += buckets_[i].load(std::memory_order_relaxed);
    if (seen > wanted || (seen == wanted && seen > 0)) return i == 0 ? 0 : (uint64_t{1} << i) - 1;
  }
  return 0;
}

Latency::Reading Latency::Read() const {
  Reading reading;
  reading.sum_us = sum_us();
  for (size_t i = 0; i < kBuckets; ++i) {
    reading.buckets[i] = buckets_[i].load(std::memory_order_relaxed);
    reading.count += reading.buckets[i];
  }
  return reading;
}

template <class T>
T& Registry::Find(Table<T>& table, std::string_view name, std::string_view tag) {
  std::lock_guard lock(mutex_);
  auto& slot = table[Key(name, tag)];
  if (!slot) slot = std::make_unique<T>();
  return *slot;
}

Counter& Registry::counter(std::string_view name, std::string_view tag) { return Find(counters_, name, tag); }
Gauge& Registry::gauge(std::string_view name, std::string_view tag) { return Find(gauges_, name, tag); }
Frequency& Registry::frequency(std::string_view name, std::string_view tag) {
  return Find(frequencies_, name, tag);
}
Latency& Registry::latency(std::string_view name, std::string_view tag) {
  return Find(latencies_, name, tag);
}

std::vector<Sample> Registry::Read() const {
  std::vector<Sample> samples;
  std::lock_guard lock(mutex_);
  for (const auto& [key, metric] : counters_) {
    samples.push_back({key.first, key.second, "counter", metric->value(), double(metric->value()), 0, 0});
  }
  for (const auto& [key, metric] : gauges_) {
    samples.push_back({key.first, key.second, "gauge", 0, double(metric->value()), 0, 0});
  }
  for (const auto& [key, metric] : frequencies_) {
    samples.push_back({key.first, key.second, "frequency", metric->count(), double(metric->count()), 0, 0});
  }
  for (const auto& [key, metric] : latencies_) {
    const uint64_t count = metric->count();
    const double mean = count > 0 ? double(metric->sum_us()) / double(count) : 0;
    samples.push_back(
        {key.first, key.second, "latency", count, mean, metric->max_us(), metric->QuantileUs(0.99)});
  }
  return samples;
}

}  // namespace zem::metrics
