#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "platform/rpc/connection.h"
#include "platform/rpc/link/client_channel.h"
#include "platform/rpc/method.h"
#include "platform/rpc/stream/byte_stream.h"

namespace zem {
class AsioZemProvider;
class Timer;
}  // namespace zem

namespace zem::rpc {

class ConnectionTable;
class WireConnection;

/// The connections that this side makes, by endpoint, and the channels opened over them.
///
/// Threads: all operations from any thread.  The mutex is held for memory work only, and is taken before that
/// of the connection table.
class OutgoingConnections {
 public:
  OutgoingConnections(AsioZemProvider& provider, ConnectionTable& table)
      : provider_(provider), table_(table) {}

  /// See `ConnectionManager::RequestConnection`.
  bool Request(const net::Endpoint& endpoint, ConnectionParams params);
  /// See `ConnectionManager::TeardownConnection`.
  bool Teardown(const net::Endpoint& endpoint);

  /// `done` runs once on the provider's threads, never in this stack.
  void OpenChannel(const std::string& source, const net::Endpoint& target, const ServiceInfo& service,
                   ClientChannel::OpenDone done);

  /// Forgets every endpoint; what waits for one fails.  Does not close connections.
  void Stop();

 private:
  /// The connection to one endpoint: requested by a manager (then made again as its policies say), or for the
  /// channels of "tcp://" stubs alone (then it goes with the last of them).
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
  using Entry = std::shared_ptr<Outgoing>;

  // Those named "...Locked" run under the mutex.
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
  // Closes a connection that no manager requested and that has no channel any more.
  void CloseIfUnused(const Entry& entry, WireConnection& connection);
  void PostFailure(ClientChannel::OpenDone done, const std::string& why);

  AsioZemProvider& provider_;
  ConnectionTable& table_;

  mutable std::mutex mutex_;  // guards all below, and the entries
  bool stopping_ = false;
  std::map<std::string, Entry> outgoing_;  // by endpoint text
};

}  // namespace zem::rpc
