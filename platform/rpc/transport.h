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

  /// Ids that the transport announces to its peers, now and later.
  virtual std::vector<std::string> LocalEndpointIds() const = 0;
};

}  // namespace zem::rpc
