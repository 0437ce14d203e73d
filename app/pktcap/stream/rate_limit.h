#pragma once

#include <cstddef>
#include <cstdint>

namespace zem::Tarvik {

/// Lets so many packets and bytes through in a second, with a burst of one millisecond.  Time is that of the
/// packets.
///
/// Threads: one at a time.
class RateLimit {
 public:
  static constexpr uint64_t kUnlimited = ~uint64_t{0};

  /// A rate of 0 is without limit, as kUnlimited is.
  RateLimit(uint64_t packets_per_second, uint64_t bytes_per_second);

  /// Returns whether the packet passes; one that does not leaves no trace.
  [[nodiscard]] bool Pass(int64_t time_ns, size_t bytes);

 private:
  // Fills with what passes, empties with time.
  struct Bucket {
    explicit Bucket(uint64_t rate);

    const bool limited;
    const double rate;
    const double limit;
    double level = 0;

    double LevelAfter(double seconds) const { return level - rate * seconds; }
  };

  Bucket packets_;
  Bucket bytes_;
  bool has_last_ = false;
  int64_t last_ns_ = 0;
};

}  // namespace zem::Tarvik
