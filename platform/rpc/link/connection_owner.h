#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/rpc/status.h"

namespace zem {
class AsioZemProvider;
}

namespace zem::rpc {

class ServerChannel;
class WireConnection;

/// What a connection asks of the transport that it belongs to.
///
/// Threads: called on the connection's strand, without its mutex.
class ConnectionOwner {
 public:
  virtual ~ConnectionOwner() = default;

  virtual AsioZemProvider& provider() = 0;
  /// Finds the service that `target` offers to the peer of `from`, and lets `channel` serve it.  Returns kOk,
  /// or why there is none.
  virtual StatusCode FindService(const WireConnection& from, const std::string& target,
                                 const std::string& service, uint64_t fingerprint,
                                 ServerChannel* channel) = 0;
  /// Returns the connection to which an OPEN for `target` is forwarded, and replaces `target` by the name
  /// that the forwarded OPEN asks for.  Null when the OPEN is not forwarded.
  virtual std::shared_ptr<WireConnection> RouteForwarded(const WireConnection& from, std::string* target) = 0;
  /// The peer has announced other ids.
  virtual void PeerIdsChanged(WireConnection& connection, const std::vector<std::string>& added,
                              const std::vector<std::string>& removed) = 0;
};

}  // namespace zem::rpc
