#pragma once

#include <cstdint>

namespace zem {

/// The delays between tries, in milliseconds: `initial`, then each `factor` times the one before, at most
/// `maximum`.
///
/// Threads: none of its own; the owner guards it.
class RetryPolicy {
 public:
  /// A constant delay without end.
  explicit RetryPolicy(int64_t constant_ms) : RetryPolicy(constant_ms, constant_ms, 1.0, -1) {}

  /// `attempts` is the number of tries after the first; -1 is without end, 0 is none.
  RetryPolicy(int64_t initial_ms, int64_t maximum_ms, double factor, int attempts)
      : initial_ms_(initial_ms), maximum_ms_(maximum_ms), factor_(factor), attempts_(attempts) {
    Reset();
  }

  /// The delay before the next try, or -1 when the attempts are used up.
  int64_t NextDelay() {
    if (attempts_ >= 0 && used_ >= attempts_) return -1;
    ++used_;
    const int64_t delay = next_ms_;
    const double grown = static_cast<double>(next_ms_) * factor_;
    next_ms_ = grown >= static_cast<double>(maximum_ms_) ? maximum_ms_ : static_cast<int64_t>(grown);
    return delay;
  }

  void Reset() {
    next_ms_ = initial_ms_;
    used_ = 0;
  }

 private:
  int64_t initial_ms_;
  int64_t maximum_ms_;
  double factor_;
  int attempts_;
  int64_t next_ms_ = 0;
  int used_ = 0;
};

}  // namespace zem
