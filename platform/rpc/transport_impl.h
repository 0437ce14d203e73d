#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "platform/rpc/byte_stream.h"
#include "platform/rpc/client_channel.h"
#include "platform/rpc/server.h"
#include "platform/rpc/status.h"
#include "platform/rpc/stub_factory.h"
#include "platform/rpc/transport.h"
#include "platform/rpc/wire_connection.h"

namespace zem::rpc {

/// What a built server consists of; shared with the connections that its listeners accepted.
class ServerParts {
 public:
  struct Listening {
    net::Endpoint endpoint;
    ConnectionOptions options;
    std::unique_ptr<StreamListener> listener;
  };
  std::vector<std::string> ids;
  std::map<std::string, std::shared_ptr<ServiceBase>> services;  // by full name
  std::vector<Listening> listening;
  bool refuses_connections = false;  // told in the log; guarded by the transport's mutex
};

/// The connection to one endpoint that this side makes: requested by a manager (then made again as its
/// policies say), or for the channels of "tcp://" stubs alone (then it goes with the last of them).  Guarded
/// by the transport's mutex.
struct Outgoing {
  enum class Phase {
    kWaiting,      // between two attempts
    kConnecting,   // no stream yet
    kIntroducing,  // HELLO is on its way
    kUp,
  };
  struct Waiter {
    std::string source;
    const ServiceInfo* service;
    ClientChannel::OpenDone done;
  };

  net::Endpoint endpoint;
  bool managed = false;
  ConnectionParams params;
  Phase phase = Phase::kWaiting;
  bool was_up = false;
  TimePoint attempt_began{};
  std::shared_ptr<ConnectAttempt> attempt;
  std::shared_ptr<WireConnection> connection;
  std::shared_ptr<Timer> timer;
  std::vector<Waiter> waiters;
};

/// Threads: all operations from any thread.  The mutex is held for memory work only and taken before a
/// connection's.
class TransportImpl final : public Transport, public std::enable_shared_from_this<TransportImpl> {
 public:
  explicit TransportImpl(AsioZemProvider& provider);
  ~TransportImpl() override;

  AsioZemProvider& provider() override { return provider_; }
  StubFactory& stubs() override { return *stubs_; }
  void SetConnectionHooks(std::function<void(const ConnectionInfo&)> up,
                          std::function<void(const ConnectionInfo&, CloseReason)> down) override;
  void EnableForwarding(ForwardRouter router) override;
  std::vector<std::string> LocalEndpointIds() const override;

  /// No more connections in or out; what there is ends with kLocalClose.
  void Stop();
  bool stopping() const;
  /// Runs at `Stop`; gives a number for `RemoveStopHook`, 0 when stopped already.
  uint64_t AddStopHook(std::function<void()> hook);
  void RemoveStopHook(uint64_t number);

  bool Request(const net::Endpoint& endpoint, ConnectionParams params);
  bool Teardown(const net::Endpoint& endpoint);

  /// `done` runs once on the provider's threads, never in this stack.
  void OpenChannel(const std::string& source, const net::Endpoint& target, const ServiceInfo& service,
                   ClientChannel::OpenDone done);

  /// Throws std::system_error when an endpoint cannot be bound.
  void AddServer(const std::shared_ptr<ServerParts>& server);
  void RemoveServer(const std::shared_ptr<ServerParts>& server);

  // What connections ask.
  StatusCode FindService(const WireConnection& from, const std::string& target, const std::string& service,
                         uint64_t fingerprint, ServerChannel* channel);
  std::shared_ptr<WireConnection> RouteForwarded(const WireConnection& from, std::string* target);
  void PeerIdsChanged(WireConnection& connection, const std::vector<std::string>& added,
                      const std::vector<std::string>& removed);
  void ConnectionMayBeUnused(WireConnection& connection);

 private:
  using Entry = std::shared_ptr<Outgoing>;

  // Outgoing connections (outgoing.cc); those named "...Locked" under the mutex.
  void AttemptLocked(const Entry& entry);
  void AttemptAfterLocked(const Entry& entry, int64_t delay_ms);
  void AttemptFailedLocked(const Entry& entry, const std::string& why);
  void FailWaitersLocked(Outgoing& entry, const std::string& why);
  void EraseLocked(const Entry& entry);
  bool CurrentLocked(const Entry& entry) const;
  void OnStream(const Entry& entry, std::shared_ptr<ByteStream> stream, std::shared_ptr<Strand> strand,
                const std::string& error);
  void OnUp(const Entry& entry, WireConnection& connection);
  void OnDown(const Entry& entry, WireConnection& connection, CloseReason reason, bool introduced);

  void OnAccepted(const std::weak_ptr<ServerParts>& server, const ConnectionOptions& options,
                  std::shared_ptr<ByteStream> stream, std::shared_ptr<Strand> strand);
  bool MayAcceptLocked(ServerParts& server, size_t limit) const;
  void AddConnectionLocked(const std::shared_ptr<WireConnection>& connection);
  void ConnectionUp(WireConnection& connection);
  void ConnectionDown(WireConnection& connection, CloseReason reason, bool introduced);
  std::vector<std::string> AnnouncedLocked(bool inbound, const ServerParts* server) const;
  std::shared_ptr<WireConnection> RouteLocked(const std::string& id, const WireConnection* except) const;
  std::vector<std::shared_ptr<WireConnection>> ConnectionsLocked() const;
  void PostFailure(ClientChannel::OpenDone done, const std::string& why);

  AsioZemProvider& provider_;
  const std::unique_ptr<StubFactory> stubs_;

  mutable std::mutex mutex_;  // guards all below
  bool stopping_ = false;
  std::function<void(const ConnectionInfo&)> up_hook_;
  std::function<void(const ConnectionInfo&, CloseReason)> down_hook_;
  bool forwarding_ = false;
  ForwardRouter router_;
  std::map<std::string, Entry> outgoing_;  // by endpoint text
  std::map<WireConnection*, std::shared_ptr<WireConnection>> connections_;
  // Those closed too while anybody holds them: something may still wait on their strands when the loop ends.
  std::vector<std::weak_ptr<WireConnection>> living_;
  size_t prune_living_at_ = 64;
  std::map<std::string, std::vector<WireConnection*>>
      routes_;                             // id -> whose peer announced it, the newest last
  std::vector<WireConnection*> gateways_;  // up, with the forward option
  std::vector<std::shared_ptr<ServerParts>> servers_;
  uint64_t last_stop_hook_ = 0;
  std::map<uint64_t, std::function<void()>> stop_hooks_;
};

}  // namespace zem::rpc
