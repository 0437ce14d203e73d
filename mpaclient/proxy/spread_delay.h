#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace zem {

/// Spreads the hosts of a fabric over time, so that they do not all reach for a returning proxy at the same
/// instant: the same for all clients of one id on one host, another on every host.  Milliseconds, 1000 to 999
/// + `range_ms`.
inline int64_t SpreadDelayMs(const std::string& tn_uuid, const std::string& app_id, uint64_t range_ms) {
  constexpr int64_t kLeastMs = 1000;
  return static_cast<int64_t>(std::hash<std::string>{}(tn_uuid + app_id) % range_ms) + kLeastMs;
}

constexpr uint64_t kFirstStubSpreadMs = 4000;
constexpr uint64_t kRetryStubSpreadMs = 10000;

/// Breaks an endless row of failures: every `kBreak`th gives the caller a fresh start.
class RetryCountdown {
 public:
  static constexpr int kBreak = 100;

  void Reset() { left_ = kBreak; }

  /// True at the failure that ends the row; the next row begins.
  bool Failed() {
    if (--left_ >= 1) return false;
    Reset();
    return true;
  }

 private:
  int left_ = kBreak;
};

}  // namespace zem
