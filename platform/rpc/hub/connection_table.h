#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/rpc/hub/server_parts.h"
#include "platform/rpc/link/connection_owner.h"
#include "platform/rpc/link/wire_connection.h"
#include "platform/rpc/transport.h"

namespace zem::rpc {

/// All connections of a transport, made and accepted; the ids behind them; the servers on this side.
///
/// Threads: all operations from any thread.  The mutex is held for memory work only and taken before a
/// connection's.
class ConnectionTable final : public ConnectionOwner {
 public:
  explicit ConnectionTable(AsioZemProvider& provider) : provider_(provider) {}
  /// Ends every status that is still due, in this stack: the loop has ended.
  void DetachLoop();

  AsioZemProvider& provider() override { return provider_; }
  void SetHooks(std::function<void(const ConnectionInfo&)> up,
                std::function<void(const ConnectionInfo&, CloseReason)> down);
  void EnableForwarding(Transport::ForwardRouter router);
  /// The ids of all servers, sorted.
  std::vector<std::string> LocalIds() const;

  /// Closes the listeners and every connection; no connection is made or accepted any more.
  void Stop();

  /// Makes a connection of this side over `stream`; completes `settings`.  Null after the stop.  The caller
  /// has to `Begin` it, and to call `Up` and `Down` from its callbacks.
  std::shared_ptr<WireConnection> Make(std::shared_ptr<ByteStream> stream, std::shared_ptr<Strand> strand,
                                       WireConnection::Settings settings);
  void Up(WireConnection& connection);
  void Down(WireConnection& connection, CloseReason reason, bool introduced);

  /// Returns the connection whose peer announced `id`, else a gateway; null when there is neither.
  std::shared_ptr<WireConnection> RouteTo(const std::string& id) const;

  /// Throws std::system_error when an endpoint cannot be bound.
  void AddServer(const std::shared_ptr<ServerParts>& server);
  void RemoveServer(const std::shared_ptr<ServerParts>& server);

 private:
  StatusCode FindService(const WireConnection& from, const std::string& target, const std::string& service,
                         uint64_t fingerprint, ServerChannel* channel) override;
  std::shared_ptr<WireConnection> RouteForwarded(const WireConnection& from, std::string* target) override;
  void PeerIdsChanged(WireConnection& connection, const std::vector<std::string>& added,
                      const std::vector<std::string>& removed) override;

  void OnAccepted(const std::weak_ptr<ServerParts>& server, const ConnectionOptions& options,
                  std::shared_ptr<ByteStream> stream, std::shared_ptr<Strand> strand);
  bool MayAcceptLocked(ServerParts& server, size_t limit) const;
  void AddLocked(const std::shared_ptr<WireConnection>& connection);
  std::vector<std::string> AnnouncedLocked(bool inbound, const ServerParts* server) const;
  std::shared_ptr<WireConnection> RouteLocked(const std::string& id, const WireConnection* except) const;
  std::vector<std::shared_ptr<WireConnection>> AllLocked() const;

  AsioZemProvider& provider_;

  mutable std::mutex mutex_;  // guards all below
  bool stopping_ = false;
  std::function<void(const ConnectionInfo&)> up_hook_;
  std::function<void(const ConnectionInfo&, CloseReason)> down_hook_;
  bool forwarding_ = false;
  Transport::ForwardRouter router_;
  std::map<WireConnection*, std::shared_ptr<WireConnection>> connections_;
  // Closed connections too, while anybody holds them: something may still wait on their strands when the loop
  // ends.
  std::vector<std::weak_ptr<WireConnection>> living_;
  size_t prune_living_at_ = 64;
  // By id: the connections whose peers announced it, the newest last.
  std::map<std::string, std::vector<WireConnection*>> routes_;
  std::vector<WireConnection*> gateways_;  // up, with the forward option
  std::vector<std::shared_ptr<ServerParts>> servers_;
};

}  // namespace zem::rpc
