#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/core/clock.h"

namespace orlane::zem::switching {
class HostConfigMsg;
}

namespace zem::zema {

/// What the application of a host configuration asks of the agent around it: work that runs after the answer,
/// and notifications to other parts of the agent.
///
/// Threads: the worker of host configurations, except RunBehind, which may be called from any thread.
class FollowUpTasks {
 public:
  /// Identifies the recipient of the outcome.
  struct Origin {
    std::string correlation_id;
    std::string reply_to;
    std::string id;
    std::string transport_node_id;
    std::string revision;
  };

  virtual ~FollowUpTasks() = default;

  /// A new configuration is in force: tasks of older ones stop looking for addresses.
  virtual void BeginConfiguration() = 0;
  /// Looks for the IPv4 addresses of endpoints that get them by DHCP; tries up to `retries` more times when
  /// the first try finds none.
  virtual void FetchAddresses(const Origin& origin, const std::vector<std::string>& devices, int retries) = 0;
  /// Like FetchAddresses, for IPv6.  `kinds` maps each device to "dhcp" or "linklayer".
  virtual void FetchIpv6Addresses(const Origin& origin, const std::map<std::string, std::string>& kinds,
                                  int retries) = 0;
  /// Both arguments are in seconds.
  virtual void HotSwapUnusedCkln(int initial_delay, int retry_interval) = 0;
  /// Waits for the host's maintenance mode, then applies the performance settings that need it.
  virtual void ApplyHighPerformanceProfile() = 0;
  /// Waits up to `seconds` for the host management daemon, which opens its socket when the first switch
  /// exists.
  virtual void WaitForHostManagement(int seconds) = 0;
  /// Writes the transport node id into the controllers' file.
  virtual void UpdateTnUuidInFile(const std::string& id) = 0;
  /// Called with false while the host's switches change, so that no port operation is replayed meanwhile.
  virtual void AllowResync(bool allowed) = 0;

  /// Reports each configuration once it has been applied.
  virtual void Applied(const orlane::zem::switching::HostConfigMsg& config) = 0;
  /// Ends the maintenance mode in this process, because the node to which it belonged has been removed.
  virtual void LeaveMaintenance() = 0;
  /// Runs the work on the thread of host configurations after `delay`; replaces work that is already
  /// scheduled.
  virtual void RunLater(Duration delay, std::function<void()> work) = 0;
  /// Runs the work on the thread of host configurations, after the tasks that wait there already.
  virtual void RunBehind(std::function<void()> work) = 0;
};

}  // namespace zem::zema
