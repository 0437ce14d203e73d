#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace zem {

/// The delay before a stub is made, in milliseconds from 1000 to 999 + `range_ms`.  It is the same for all
/// clients with one id on a host and differs between hosts, so that the hosts of a fabric do not all connect
/// to a returning proxy at the same instant.
inline int64_t SpreadDelayMs(const std::string& tn_uuid, const std::string& app_id, uint64_t range_ms) {
  constexpr int64_t kLeastMs = 1000;
  return static_cast<int64_t>(std::hash<std::string>{}(tn_uuid + app_id) % range_ms) + kLeastMs;
}

constexpr uint64_t kFirstStubSpreadMs = 4000;
constexpr uint64_t kRetryStubSpreadMs = 10000;

/// Counts failures in a row: after every `kBreak` of them the caller starts afresh.
class RetryCountdown {
 public:
  static constexpr int kBreak = 100;

  void Reset() { left_ = kBreak; }

  /// Counts one failure.  Returns true when it is the last of a row; the next row begins then.
  bool Failed() {
    if (--left_ >= 1) return false;
    Reset();
    return true;
  }

 private:
  int left_ = kBreak;
};

}  // namespace zem
