#pragma once

#include <atomic>

namespace zem::zema {

/// What host configurations leave for those that follow them in this process.
///
/// Threads: all from any thread.
struct HostConfigState {
  /// An upgrade has been restored and the manager has not sent a configuration since.
  std::atomic<bool> first_iteration_post_upgrade{false};
  /// The host itself removes the agent.
  std::atomic<bool> del_zem_running{false};
  /// The last configuration had a switch whose kind the agent had to set: the switch's status follows the
  /// realization's health.
  std::atomic<bool> kln_follows_health{false};
  /// The manager does not want to hear of VIFs at run time.
  std::atomic<bool> runtime_updates_disabled{false};
};

}  // namespace zem::zema
