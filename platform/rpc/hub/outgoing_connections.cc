#include "platform/rpc/hub/outgoing_connections.h"

#include <utility>

#include "platform/core/lib_log.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/hub/connection_table.h"

namespace zem::rpc {

bool OutgoingConnections::Request(const net::Endpoint& endpoint, ConnectionParams params) {
  std::function<void(const ConnectionInfo&)> connected;
  std::shared_ptr<WireConnection> up;
  {
    std::lock_guard lock(mutex_);
    if (stopping_ || endpoint.kind() != net::Endpoint::Kind::kTcp) return false;
    Entry& entry = outgoing_[endpoint.text()];
    if (entry && entry->managed) return false;
    const bool made = !entry;
    if (made) {
      entry = std::make_shared<Outgoing>();
      entry->endpoint = endpoint;
    }
    // A connection that stubs have made of their own accord becomes the manager's.
    entry->managed = true;
    entry->params = std::move(params);
    if (made) AttemptLocked(entry);
    if (entry->phase == Outgoing::Phase::kUp) {
      up = entry->connection;
      connected = entry->params.on_connected;
    }
  }
  if (up && connected) up->strand()->Post([up, connected] { connected(up->info()); });
  return true;
}

bool OutgoingConnections::Teardown(const net::Endpoint& endpoint) {
  Entry entry;  // destroyed after the lock: it owns the caller's callbacks
  std::shared_ptr<WireConnection> connection;
  {
    std::lock_guard lock(mutex_);
    const auto found = outgoing_.find(endpoint.text());
    if (found == outgoing_.end() || !found->second->managed) return false;
    entry = found->second;
    outgoing_.erase(found);
    if (entry->timer) entry->timer->Cancel();
    if (entry->attempt) entry->attempt->Cancel();
    FailWaitersLocked(*entry, "the connection was torn down");
    connection = entry->connection;
  }
  if (connection) connection->Close(CloseReason::kLocalClose);
  return true;
}

void OutgoingConnections::PostFailure(ClientChannel::OpenDone done, const std::string& why) {
  provider_.dispatcher().Post(
      [done = std::move(done), why] { done(nullptr, Status(StatusCode::kUnavailable, why)); });
}

void OutgoingConnections::OpenChannel(const std::string& source, const net::Endpoint& target,
                                      const ServiceInfo& service, ClientChannel::OpenDone done) {
  using Kind = net::Endpoint::Kind;
  std::shared_ptr<WireConnection> connection;
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return PostFailure(std::move(done), "the transport stopped");
    if (target.kind() == Kind::kInvalid)
      return PostFailure(std::move(done), "not an endpoint: " + target.text());
    if (target.kind() == Kind::kId) {
      connection = table_.RouteTo(target.id());
      if (!connection) return PostFailure(std::move(done), "no route to " + target.text());
    } else {
      Entry& entry = outgoing_[target.text()];
      if (!entry) {
        entry = std::make_shared<Outgoing>();
        entry->endpoint = target;
        entry->waiters.push_back({source, &service, std::move(done)});
        AttemptLocked(entry);
        return;
      }
      if (entry->phase == Outgoing::Phase::kWaiting) {
        return PostFailure(std::move(done), "not connected to " + target.text());
      }
      if (entry->phase != Outgoing::Phase::kUp) {
        entry->waiters.push_back({source, &service, std::move(done)});
        return;
      }
      connection = entry->connection;
    }
  }
  connection->OpenChannel(source, target.kind() == Kind::kId ? target.id() : target.text(), service,
                          std::move(done));
}

void OutgoingConnections::Stop() {
  std::map<std::string, Entry> outgoing;  // destroyed after the lock: the entries own callbacks
  std::lock_guard lock(mutex_);
  stopping_ = true;
  outgoing.swap(outgoing_);
  for (const auto& [text, entry] : outgoing) {
    if (entry->timer) entry->timer->Cancel();
    if (entry->attempt) entry->attempt->Cancel();
    FailWaitersLocked(*entry, "the transport stopped");
  }
}

bool OutgoingConnections::CurrentLocked(const Entry& entry) const {
  const auto found = outgoing_.find(entry->endpoint.text());
  return found != outgoing_.end() && found->second == entry;
}

void OutgoingConnections::EraseLocked(const Entry& entry) {
  if (CurrentLocked(entry)) outgoing_.erase(entry->endpoint.text());
}

void OutgoingConnections::FailWaitersLocked(Outgoing& entry, const std::string& why) {
  for (Outgoing::Waiter& waiter : std::exchange(entry.waiters, {})) PostFailure(std::move(waiter.done), why);
}

void OutgoingConnections::AttemptLocked(const Entry& entry) {
  entry->phase = Outgoing::Phase::kConnecting;
  entry->attempt_began = Clock::Process().Now();
  entry->attempt =
      ConnectStream(provider_, entry->endpoint, std::chrono::milliseconds(entry->params.options.timeout_ms),
                    [this, entry](std::shared_ptr<ByteStream> stream, std::shared_ptr<Strand> strand,
                                  const std::string& error) {
                      OnStream(entry, std::move(stream), std::move(strand), error);
                    });
}

void OutgoingConnections::AttemptAfterLocked(const Entry& entry, int64_t delay_ms) {
  if (delay_ms < 0) {
    ZEM_LIB_LOG(Library::kNet, kLogWarning, "%s: no more attempts", entry->endpoint.text().c_str());
    EraseLocked(entry);
    return;
  }
  entry->phase = Outgoing::Phase::kWaiting;
  entry->timer = provider_.timers().Schedule(std::chrono::milliseconds(delay_ms), [this, entry] {
    std::lock_guard lock(mutex_);
    if (!stopping_ && CurrentLocked(entry)) AttemptLocked(entry);
  });
}

void OutgoingConnections::AttemptFailedLocked(const Entry& entry, const std::string& why) {
  ZEM_LIB_LOG(Library::kNet, kLogInfo, "%s: %s", entry->endpoint.text().c_str(), why.c_str());
  entry->attempt = nullptr;
  entry->connection = nullptr;
  FailWaitersLocked(*entry, why);
  if (!entry->managed) {
    EraseLocked(entry);
    return;
  }
  RetryPolicy& policy = entry->was_up ? entry->params.reconnect.policy : entry->params.retry;
  AttemptAfterLocked(entry, policy.NextDelay());
}

void OutgoingConnections::OnStream(const Entry& entry, std::shared_ptr<ByteStream> stream,
                                   std::shared_ptr<Strand> strand, const std::string& error) {
  std::shared_ptr<WireConnection> connection;
  {
    std::lock_guard lock(mutex_);
    if (stopping_ || !CurrentLocked(entry)) return;
    if (!stream) return AttemptFailedLocked(entry, error);
    WireConnection::Settings settings;
    settings.options = entry->params.options;
    settings.introduction_deadline =
        entry->attempt_began + std::chrono::milliseconds(settings.options.timeout_ms);
    settings.on_up = [this, entry](WireConnection& c) { OnUp(entry, c); };
    settings.on_down = [this, entry](WireConnection& c, CloseReason reason, bool introduced) {
      OnDown(entry, c, reason, introduced);
    };
    settings.on_channels_ended = [this, entry](WireConnection& c) { CloseIfUnused(entry, c); };
    connection = table_.Make(std::move(stream), std::move(strand), std::move(settings));
    if (!connection) return;
    entry->attempt = nullptr;
    entry->connection = connection;
    entry->phase = Outgoing::Phase::kIntroducing;
  }
  connection->Begin();
}

void OutgoingConnections::OnUp(const Entry& entry, WireConnection& connection) {
  std::function<void(const ConnectionInfo&)> connected;
  {
    std::lock_guard lock(mutex_);
    if (!CurrentLocked(entry)) return;  // torn down meanwhile
  }
  table_.Up(connection);
  {
    std::lock_guard lock(mutex_);
    if (!CurrentLocked(entry)) return;
    entry->phase = Outgoing::Phase::kUp;
    entry->was_up = true;
    entry->params.retry.Reset();
    entry->params.reconnect.policy.Reset();
    if (entry->managed) connected = entry->params.on_connected;
  }
  if (connected) connected(connection.info());
  std::vector<Outgoing::Waiter> waiters;
  {
    std::lock_guard lock(mutex_);
    waiters.swap(entry->waiters);
  }
  for (Outgoing::Waiter& waiter : waiters) {
    connection.OpenChannel(waiter.source, entry->endpoint.text(), *waiter.service, std::move(waiter.done));
  }
}

void OutgoingConnections::OnDown(const Entry& entry, WireConnection& connection, CloseReason reason,
                                 bool introduced) {
  table_.Down(connection, reason, introduced);
  std::function<void(CloseReason)> closed;
  {
    std::lock_guard lock(mutex_);
    if (entry->managed && entry->was_up && introduced) closed = entry->params.on_closed;
    FailWaitersLocked(*entry, "the connection was lost");
    entry->phase = Outgoing::Phase::kWaiting;
    entry->connection = nullptr;
  }
  if (closed) closed(reason);
  std::lock_guard lock(mutex_);
  if (stopping_ || !CurrentLocked(entry)) return;
  if (!introduced)
    return AttemptFailedLocked(entry, std::string("no introduction: ") + CloseReasonToCStr(reason));
  if (!entry->managed || entry->params.reconnect.behaviour == ReconnectPolicy::kNever)
    return EraseLocked(entry);
  AttemptAfterLocked(entry, entry->params.reconnect.policy.NextDelay());
}

void OutgoingConnections::CloseIfUnused(const Entry& entry, WireConnection& connection) {
  std::lock_guard lock(mutex_);
  if (!CurrentLocked(entry) || entry->connection.get() != &connection) return;
  if (entry->managed || entry->phase != Outgoing::Phase::kUp || !entry->waiters.empty() ||
      !connection.unused()) {
    return;
  }
  EraseLocked(entry);
  connection.Close(CloseReason::kLocalClose);
}

}  // namespace zem::rpc
