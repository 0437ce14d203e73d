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

/// What surrounds the application of a host configuration on this node: the work that is left for after its
/// answer, and the parts of the agent above that have to know of it.
///
/// Threads: the host configurations' worker, apart from RunBehind, which may be called from any thread.
class FollowUpTasks {
 public:
  /// Whom the outcome is for.
  struct Origin {
    std::string correlation_id;
    std::string reply_to;
    std::string id;
    std::string transport_node_id;
    std::string revision;
  };

  virtual ~FollowUpTasks() = default;

  /// A configuration is in force: tasks for older ones stop looking for addresses.
  virtual void BeginConfiguration() = 0;
  /// Looks for the IPv4 addresses of endpoints that get them by DHCP; `retries` more tries if the first finds
  /// none.
  virtual void FetchAddresses(const Origin& origin, const std::vector<std::string>& devices, int retries) = 0;
  /// As FetchAddresses for IPv6.  `kinds` has "dhcp" or "linklayer" by device.
  virtual void FetchIpv6Addresses(const Origin& origin, const std::map<std::string, std::string>& kinds,
                                  int retries) = 0;
  /// Both in seconds.
  virtual void HotSwapUnusedCkln(int initial_delay, int retry_interval) = 0;
  /// Applies, once the host is in maintenance mode, the performance settings that need it.
  virtual void ApplyHighPerformanceProfile() = 0;
  /// The host management daemon opens its socket with the first switch: waits for the connection, seconds at
  /// most.
  virtual void WaitForHostManagement(int seconds) = 0;
  /// Writes the transport node id into the controllers' file.
  virtual void UpdateTnUuidInFile(const std::string& id) = 0;
  /// False while the host's switches change, so that no port operation is replayed meanwhile.
  virtual void AllowResync(bool allowed) = 0;

  /// Reports each configuration once it has been applied.
  virtual void Applied(const orlane::zem::switching::HostConfigMsg& config) = 0;
  /// Ends the maintenance mode in this process: the node to which it belonged is gone.
  virtual void LeaveMaintenance() = 0;
  /// Runs the work on the thread of the host configurations, so much later; replaces what waits already.
  virtual void RunLater(Duration delay, std::function<void()> work) = 0;
  /// Runs the work on the thread of the host configurations, behind what waits there already.
  virtual void RunBehind(std::function<void()> work) = 0;
};

}  // namespace zem::zema
