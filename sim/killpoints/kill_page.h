#pragma once

#include <atomic>
#include <cstdint>

namespace zem::sim {

/// A file that the node and the library inside the daemon have both mapped.  It outlives the daemon, so that
/// a kill can be ordered before the daemon starts, and the step at which it died can be read afterwards.
struct KillPage {
  static constexpr uint32_t kNames = 4096;
  static constexpr uint32_t kNameSize = 120;

  /// The order below is valid while this is set.  The library clears it before it kills, so that the next
  /// start is spared.
  std::atomic<uint32_t> armed;
  /// Steps counted since the order was set.
  std::atomic<uint32_t> steps;
  /// Set when the daemon was killed by this order.
  std::atomic<uint32_t> killed;
  /// The number of the step at which to kill; 0 only counts steps.
  uint32_t kill_at;
  /// Kill after the step instead of before it.
  uint32_t after;
  /// The names of the last steps; step N is at N % kNames.
  char names[kNames][kNameSize];
};

static_assert(std::atomic<uint32_t>::is_always_lock_free);

/// Path of the page as the daemon sees it.
inline constexpr const char* kKillPageVariable = "ZEM_KILL_PAGE";

}  // namespace zem::sim
