#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "platform/core/retry_policy.h"
#include "platform/rpc/close_reason.h"
#include "platform/rpc/endpoint.h"

namespace zem::rpc {

class Transport;

/// The peer of a connection.
struct ConnectionInfo {
  /// "tcp://peer <-> tcp://local"
  std::string text;
  /// The ids that the peer announced so far.
  std::vector<std::string> peer_ids;
};

struct RpcConnectionOptions {
  /// The peer may open channels to any local endpoint id of this transport, not only to those of a listening
  /// server.
  bool inbound = false;
  /// Targets without a direct route ("zem://ID") go over this connection.
  bool forward = false;

  static RpcConnectionOptions Gateway(bool inbound, bool forward) { return {inbound, forward}; }
};

struct ConnectionOptions {
  /// Connecting and introduction together.
  int64_t timeout_ms = 2000;
  RpcConnectionOptions rpc;
  Duration heartbeat_idle = std::chrono::seconds(5);
  Duration heartbeat_dead = std::chrono::seconds(15);
  /// Of a listening endpoint: while its server has so many connections, a further one is closed at once.
  size_t accepted_limit = 1024;
};

/// What to do when a connection is lost.
struct ReconnectPolicy {
  enum Behaviour { kNever = 0, kAlways = 1 };
  ReconnectPolicy(int behaviour, RetryPolicy policy) : behaviour(behaviour), policy(policy) {}
  int behaviour;
  RetryPolicy policy;
};

struct ConnectionParams {
  RetryPolicy retry{1000, 5000, 2.0, -1};
  ReconnectPolicy reconnect{ReconnectPolicy::kAlways, RetryPolicy{1000, 5000, 2.0, -1}};
  /// Runs after the introduction of both sides.
  std::function<void(const ConnectionInfo&)> on_connected;
  /// Runs after every channel of the connection has ended.
  std::function<void(CloseReason)> on_closed;
  ConnectionOptions options;
};

/// Keeps connections by endpoint: connects, reconnects, reports.
///
/// Threads: all operations from any thread; callbacks on the provider's threads, never in the caller's stack.
/// Its end tears down what it has requested.
class ConnectionManager {
 public:
  explicit ConnectionManager(Transport& transport);
  ~ConnectionManager();

  /// Starts to connect and does not wait.  False when the endpoint has a connection or a request already; the
  /// params are then ignored.
  bool RequestConnection(const net::Endpoint& endpoint, ConnectionParams params);

  /// Forgets the endpoint at once and closes its connection behind the caller's back: channels end with
  /// kLocalClose, then the closed callback runs once.  False when there is none.
  bool TeardownConnection(const net::Endpoint& endpoint);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zem::rpc
