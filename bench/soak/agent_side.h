#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mpaclient/bus/bus_record.h"
#include "platform/provider/provider.h"

namespace zem {
class TnProxyClientCommon;
struct Vertical;
}  // namespace zem

namespace zem::bench {

inline constexpr const char* kAphs[] = {"0a000000-0000-4000-8000-000000000001",
                                        "0a000000-0000-4000-8000-000000000002",
                                        "0a000000-0000-4000-8000-000000000003"};

/// The id of a host that reconnects early to its manager: the id determines how long a host waits.
std::string EarlyTransportNode();

/// The two endpoints of a proxy, on loopback ports that were free when they were chosen.
struct Endpoints {
  std::string info;
  std::string forwarding;
};
Endpoints FreeEndpoints();

/// Every vertical that has a connection of its own to the manager.
std::vector<const Vertical*> AllVerticals();
bool ServesCalls(const Vertical& vertical);
/// Returns false for the vertical that only serves the manager's calls and so is never informed that the
/// manager is there.
bool AsksTheManager(const Vertical& vertical);

/// The agent's complete manager clients for the given verticals, in this process.
class AgentSide {
 public:
  /// Runs on the forwarding provider's thread.
  using Receive = std::function<void(const Vertical&, const rmqClientMessage&)>;

  AgentSide(const Endpoints& endpoints, const std::vector<const Vertical*>& verticals, Receive receive);
  ~AgentSide();
  AgentSide(const AgentSide&) = delete;
  AgentSide& operator=(const AgentSide&) = delete;

  /// Whether the vertical is served by the manager now.
  bool Ready(const Vertical& vertical) const;

 private:
  AsioZemProvider provider_;
  const std::vector<const Vertical*> verticals_;
  std::shared_ptr<TnProxyClientCommon> proxy_client_;
};

/// Sends a record of a vertical to the manager.  Returns false when there is no connection for it.
bool Send(const Vertical& vertical, BusMessageType kind, const std::string& type,
          const std::string& correlation_id, std::string payload);

}  // namespace zem::bench
