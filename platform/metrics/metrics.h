#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/clock.h"

namespace zem::metrics {

/// A count that only grows.
class Counter {
 public:
  void Add(uint64_t n = 1) { value_.fetch_add(n, std::memory_order_relaxed); }
  uint64_t value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> value_{0};
};

/// The last value of something.
class Gauge {
 public:
  void Set(int64_t value) { value_.store(value, std::memory_order_relaxed); }
  void Add(int64_t n) { value_.fetch_add(n, std::memory_order_relaxed); }
  int64_t value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<int64_t> value_{0};
};

/// Events counted, and their rate between two readings of a collector.
class Frequency {
 public:
  void Mark() { value_.fetch_add(1, std::memory_order_relaxed); }
  uint64_t count() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> value_{0};
};

/// Durations in microseconds: count, sum, largest, and a histogram by powers of two.
class Latency {
 public:
  static constexpr size_t kBuckets = 32;

  void Record(Duration duration);
  uint64_t count() const { return count_.load(std::memory_order_relaxed); }
  uint64_t sum_us() const { return sum_us_.load(std::memory_order_relaxed); }
  uint64_t max_us() const { return max_us_.load(std::memory_order_relaxed); }
  /// Upper bound of the bucket that holds the given share (0 to 1) of the records.
  uint64_t QuantileUs(double share) const;

  /// All of it; bucket i counts the records below 2^i microseconds that are in no bucket before.
  struct Reading {
    uint64_t count = 0;  ///< of all buckets together
    uint64_t sum_us = 0;
    std::array<uint64_t, kBuckets> buckets{};
  };
  Reading Read() const;

 private:
  std::atomic<uint64_t> count_{0};
  std::atomic<uint64_t> sum_us_{0};
  std::atomic<uint64_t> max_us_{0};
  std::array<std::atomic<uint64_t>, kBuckets> buckets_{};
};

/// One reading of one metric, for collectors and tests.
struct Sample {
  std::string name;
  std::string tag;  // "key=value", or empty
  const char* kind;
  uint64_t count;
  double value;  // gauge: the value; latency: the mean in microseconds; else the count
  uint64_t max;
  uint64_t p99;
};

/// Metrics by name and tag, made at first use; references stay valid as long as the registry.
///
/// Threads: all operations from any thread; updating a metric takes no lock.
class Registry {
 public:
  Counter& counter(std::string_view name, std::string_view tag = {});
  Gauge& gauge(std::string_view name, std::string_view tag = {});
  Frequency& frequency(std::string_view name, std::string_view tag = {});
  Latency& latency(std::string_view name, std::string_view tag = {});

  std::vector<Sample> Read() const;

 private:
  using Key = std::pair<std::string, std::string>;
  template <class T>
  using Table = std::map<Key, std::unique_ptr<T>>;
  template <class T>
  T& Find(Table<T>& table, std::string_view name, std::string_view tag);

  mutable std::mutex mutex_;  // guards the tables, not the metrics
  Table<Counter> counters_;
  Table<Gauge> gauges_;
  Table<Frequency> frequencies_;
  Table<Latency> latencies_;
};

}  // namespace zem::metrics
