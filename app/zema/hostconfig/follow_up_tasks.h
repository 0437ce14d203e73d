#pragma once

#include <map>
#include <string>
#include <vector>

namespace zem::zema {

/// What a host configuration leaves to be done after its answer, in the order of the operations here.  This
/// default does none of it.
///
/// Threads: the host configuration's.
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

  /// A configuration is in force: what those before it still look for is given up.
  virtual void BeginConfiguration();
  /// Endpoints whose IPv4 address is to come; so many more tries if the first finds none.
  virtual void FetchAddresses(const Origin& origin, const std::vector<std::string>& devices, int retries);
  /// "dhcp" or "linklayer" by device.
  virtual void FetchIpv6Addresses(const Origin& origin, const std::map<std::string, std::string>& kinds,
                                  int retries);
  /// Seconds.
  virtual void HotSwapUnusedCkln(int initial_delay, int retry_interval);
  virtual void ApplyHighPerformanceProfile();
  /// The host management daemon opens its socket with the first switch: waits for the connection, seconds at
  /// most.
  virtual void WaitForHostManagement(int seconds);
  /// The controllers' file carries the transport node id.
  virtual void UpdateTnUuidInFile(const std::string& id);
  /// False while the host's switches change, so that no port operation is replayed meanwhile.
  virtual void AllowResync(bool allowed);
};

}  // namespace zem::zema
