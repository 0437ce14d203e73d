#pragma once

#include <atomic>
#include <cstdint>

namespace zem::sim {

/// What the node and the library in the daemon share: a file that both have mapped.  It outlives the daemon,
/// so that a kill can be ordered before the daemon starts, and the step at which it died can be read
/// afterwards.
struct KillPage {
  static constexpr uint32_t kNames = 4096;
  static constexpr uint32_t kNameSize = 120;

  /// The orders below hold while it is set; whoever kills clears it first, so that the next life is spared.
  std::atomic<uint32_t> armed;
  /// Steps since it was armed.
  std::atomic<uint32_t> steps;
  /// The daemon was killed by this order.
  std::atomic<uint32_t> killed;
  /// Which step; 0 only counts.
  uint32_t kill_at;
  /// Behind the step instead of before it.
  uint32_t after;
  /// The last ones; step N is at N % kNames.
  char names[kNames][kNameSize];
};

static_assert(std::atomic<uint32_t>::is_always_lock_free);

/// Where the library finds the page, as the daemon sees it.
inline constexpr const char* kKillPageVariable = "ZEM_KILL_PAGE";

}  // namespace zem::sim
