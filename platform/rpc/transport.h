#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/rpc/connection.h"

namespace zem {
class AsioZemProvider;
}

namespace zem::rpc {

class StubFactory;

/// The RPC library's state of one provider: local endpoint ids, listeners, connections, routes, services.
///
/// Threads: all operations from any thread.
class Transport {
 public:
  virtual ~Transport() = default;

  virtual AsioZemProvider& provider() = 0;
  virtual StubFactory& stubs() = 0;

  /// Every connection of the transport, made or accepted; `up` after the introduction, `down` after its
  /// channels.
  virtual void SetConnectionHooks(std::function<void(const ConnectionInfo&)> up,
                                  std::function<void(const ConnectionInfo&, CloseReason)> down) = 0;

  /// Where an OPEN that asks for an id which is not local goes.
  struct ForwardRoute {
    /// An id that the next connection's peer has announced; empty refuses.
    std::string via;
    /// What the forwarded OPEN names as its target.
    std::string target;
  };
  using ForwardRouter = std::function<ForwardRoute(const ConnectionInfo& from, const std::string& target)>;

  /// Lets channels pass through this process: an OPEN for an id that is not local goes on to the connection
  /// whose peer announced it, and from then on frames pass both ways with only their channel id rewritten.
  /// When the target's connection or id goes, its channels end with kTargetUnreachable for the side that
  /// opened them.  `router` runs on the asking connection's strand; without one a target is looked for under
  /// its own name.
  virtual void EnableForwarding(ForwardRouter router = {}) = 0;

  /// Ids that the transport announces to its peers, now and later.
  virtual std::vector<std::string> LocalEndpointIds() const = 0;
};

}  // namespace zem::rpc
