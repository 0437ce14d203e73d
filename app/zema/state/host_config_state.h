#pragma once

#include <atomic>

namespace zem::zema {

/// State that host configurations leave for later ones in this process.
///
/// Threads: all from any thread.
struct HostConfigState {
  /// The configuration of an upgrade has been restored and the manager has not sent one since.
  std::atomic<bool> first_iteration_post_upgrade{false};
  /// The host itself is removing the agent.
  std::atomic<bool> del_zem_running{false};
  /// The last configuration had a switch whose kind the agent had to set: the switch's status follows the
  /// realization's health.
  std::atomic<bool> kln_follows_health{false};
  /// The manager does not want reports about VIFs at run time.
  std::atomic<bool> runtime_updates_disabled{false};
};

}  // namespace zem::zema
