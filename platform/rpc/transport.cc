#include <algorithm>
#include <utility>

#include "platform/core/lib_log.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/stub_creator.h"
#include "platform/rpc/transport_impl.h"

namespace zem::rpc {

TransportImpl::TransportImpl(AsioZemProvider& provider)
    : provider_(provider), stubs_(std::make_unique<StubFactoryImpl>(*this)) {}

// The loop has ended: nothing runs any more, so what is still due is told from here.
TransportImpl::~TransportImpl() {
  Stop();
  std::vector<std::shared_ptr<WireConnection>> connections;
  std::vector<std::shared_ptr<ServerParts>> servers;
  {
    std::lock_guard lock(mutex_);
    for (const auto& weak : living_) {
      if (auto connection = weak.lock()) connections.push_back(std::move(connection));
    }
    servers = servers_;
  }
  for (const auto& connection : connections) connection->DetachLoop();
  for (const auto& server : servers) server->listening.clear();
}

void TransportImpl::SetConnectionHooks(std::function<void(const ConnectionInfo&)> up,
                                       std::function<void(const ConnectionInfo&, CloseReason)> down) {
  std::lock_guard lock(mutex_);
  up_hook_ = std::move(up);
  down_hook_ = std::move(down);
}

void TransportImpl::EnableForwarding(ForwardRouter router) {
  std::lock_guard lock(mutex_);
  forwarding_ = true;
  router_ = std::move(router);
}

std::vector<std::string> TransportImpl::LocalEndpointIds() const {
  std::lock_guard lock(mutex_);
  return AnnouncedLocked(true, nullptr);
}

std::vector<std::string> TransportImpl::AnnouncedLocked(bool inbound, const ServerParts* server) const {
  std::set<std::string> ids;
  for (const auto& candidate : servers_) {
    if (inbound || candidate.get() == server) ids.insert(candidate->ids.begin(), candidate->ids.end());
  }
  return {ids.begin(), ids.end()};
}

void TransportImpl::Stop() {
  std::map<uint64_t, std::function<void()>> hooks;
  std::vector<std::shared_ptr<WireConnection>> connections;
  std::map<std::string, Entry> outgoing;
  {
    std::lock_guard lock(mutex_);
    if (std::exchange(stopping_, true)) return;
    hooks.swap(stop_hooks_);
    connections = ConnectionsLocked();
    for (const auto& server : servers_) {
      for (const auto& listening : server->listening) {
        if (listening.listener) listening.listener->Close();
      }
    }
    outgoing.swap(outgoing_);
    for (const auto& [text, entry] : outgoing) {
      if (entry->timer) entry->timer->Cancel();
      if (entry->attempt) entry->attempt->Cancel();
      FailWaitersLocked(*entry, "the transport stopped");
    }
  }
  for (const auto& connection : connections) connection->Close(CloseReason::kLocalClose);
  for (const auto& [number, hook] : hooks) hook();
}

bool TransportImpl::stopping() const {
  std::lock_guard lock(mutex_);
  return stopping_;
}

uint64_t TransportImpl::AddStopHook(std::function<void()> hook) {
  std::lock_guard lock(mutex_);
  if (stopping_) return 0;
  stop_hooks_.emplace(++last_stop_hook_, std::move(hook));
  return last_stop_hook_;
}

void TransportImpl::RemoveStopHook(uint64_t number) {
  std::function<void()> dropped;
  std::lock_guard lock(mutex_);
  if (const auto found = stop_hooks_.find(number); found != stop_hooks_.end()) {
    dropped = std::move(found->second);
    stop_hooks_.erase(found);
  }
}

std::vector<std::shared_ptr<WireConnection>> TransportImpl::ConnectionsLocked() const {
  std::vector<std::shared_ptr<WireConnection>> all;
  all.reserve(connections_.size());
  for (const auto& [address, connection] : connections_) all.push_back(connection);
  return all;
}

std::shared_ptr<WireConnection> TransportImpl::RouteLocked(const std::string& id,
                                                           const WireConnection* except) const {
  const auto found = routes_.find(id);
  if (found == routes_.end()) return nullptr;
  for (auto at = found->second.rbegin(); at != found->second.rend(); ++at) {
    const auto connection = connections_.find(*at);
    if (*at != except && connection != connections_.end()) return connection->second;
  }
  return nullptr;
}

void TransportImpl::PostFailure(ClientChannel::OpenDone done, const std::string& why) {
  provider_.dispatcher().Post(
      [done = std::move(done), why] { done(nullptr, Status(StatusCode::kUnavailable, why)); });
}

void TransportImpl::OpenChannel(const std::string& source, const net::Endpoint& target,
                                const ServiceInfo& service, ClientChannel::OpenDone done) {
  using Kind = net::Endpoint::Kind;
  std::shared_ptr<WireConnection> connection;
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return PostFailure(std::move(done), "the transport stopped");
    if (target.kind() == Kind::kInvalid)
      return PostFailure(std::move(done), "not an endpoint: " + target.text());
    if (target.kind() == Kind::kId) {
      connection = RouteLocked(target.id(), nullptr);
      if (!connection && !gateways_.empty()) connection = connections_.at(gateways_.back());
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

void TransportImpl::AddConnectionLocked(const std::shared_ptr<WireConnection>& connection) {
  connections_.emplace(connection.get(), connection);
  if (living_.size() >= prune_living_at_) {
    living_.erase(
        std::remove_if(living_.begin(), living_.end(), [](const auto& weak) { return weak.expired(); }),
        living_.end());
    prune_living_at_ = std::max<size_t>(64, 2 * living_.size());
  }
  living_.push_back(connection);
}

// Whoever may connect could otherwise take every descriptor that the process has.
bool TransportImpl::MayAcceptLocked(ServerParts& server, size_t limit) const {
  const auto accepted = std::count_if(connections_.begin(), connections_.end(), [&server](const auto& entry) {
    return entry.second->server().get() == &server;
  });
  const bool full = static_cast<size_t>(accepted) >= limit;
  if (full && !server.refuses_connections) {
    ZEM_LIB_LOG(Library::kNet, kLogWarning, "%zu connections accepted, closing further ones", limit);
  }
  server.refuses_connections = full;
  return !full;
}

void TransportImpl::OnAccepted(const std::weak_ptr<ServerParts>& weak, const ConnectionOptions& options,
                               std::shared_ptr<ByteStream> stream, std::shared_ptr<Strand> strand) {
  std::shared_ptr<WireConnection> connection;
  {
    std::lock_guard lock(mutex_);
    auto server = weak.lock();
    if (!server || stopping_ || !MayAcceptLocked(*server, options.accepted_limit)) return;
    WireConnection::Settings settings;
    settings.options = options;
    settings.announced = AnnouncedLocked(options.rpc.inbound, server.get());
    settings.server = std::move(server);
    settings.introduction_deadline = Clock::Process().Now() + std::chrono::milliseconds(options.timeout_ms);
    settings.on_up = [this](WireConnection& c) { ConnectionUp(c); };
    settings.on_down = [this](WireConnection& c, CloseReason reason, bool introduced) {
      ConnectionDown(c, reason, introduced);
    };
    connection =
        std::make_shared<WireConnection>(*this, std::move(stream), std::move(strand), std::move(settings));
    AddConnectionLocked(connection);
  }
  connection->Begin();
}

void TransportImpl::ConnectionUp(WireConnection& connection) {
  const ConnectionInfo info = connection.info();
  std::function<void(const ConnectionInfo&)> hook;
  {
    std::lock_guard lock(mutex_);
    for (const std::string& id : info.peer_ids) routes_[id].push_back(&connection);
    if (connection.options().rpc.forward) gateways_.push_back(&connection);
    hook = up_hook_;
  }
  if (hook) hook(info);
}

void TransportImpl::ConnectionDown(WireConnection& connection, CloseReason reason, bool introduced) {
  std::shared_ptr<WireConnection> kept;
  std::function<void(const ConnectionInfo&, CloseReason)> hook;
  {
    std::lock_guard lock(mutex_);
    for (auto at = routes_.begin(); at != routes_.end();) {
      auto& list = at->second;
      list.erase(std::remove(list.begin(), list.end(), &connection), list.end());
      at = list.empty() ? routes_.erase(at) : std::next(at);
    }
    gateways_.erase(std::remove(gateways_.begin(), gateways_.end(), &connection), gateways_.end());
    if (const auto found = connections_.find(&connection); found != connections_.end()) {
      kept = std::move(found->second);
      connections_.erase(found);
    }
    hook = down_hook_;
  }
  if (introduced && hook) hook(connection.info(), reason);
}

void TransportImpl::PeerIdsChanged(WireConnection& connection, const std::vector<std::string>& added,
                                   const std::vector<std::string>& removed) {
  std::lock_guard lock(mutex_);
  for (const std::string& id : removed) {
    const auto found = routes_.find(id);
    if (found == routes_.end()) continue;
    auto& list = found->second;
    list.erase(std::remove(list.begin(), list.end(), &connection), list.end());
    if (list.empty()) routes_.erase(found);
  }
  for (const std::string& id : added) {
    auto& list = routes_[id];
    if (std::find(list.begin(), list.end(), &connection) == list.end()) list.push_back(&connection);
  }
}

void TransportImpl::AddServer(const std::shared_ptr<ServerParts>& server) {
  for (ServerParts::Listening& listening : server->listening) {
    listening.listener =
        ListenForStreams(provider_, listening.endpoint,
                         [this, weak = std::weak_ptr<ServerParts>(server), options = listening.options](
                             std::shared_ptr<ByteStream> stream, std::shared_ptr<Strand> strand) {
                           OnAccepted(weak, options, std::move(stream), std::move(strand));
                         });
  }
  std::vector<std::shared_ptr<WireConnection>> connections;
  {
    std::lock_guard lock(mutex_);
    servers_.push_back(server);
    if (!server->ids.empty()) connections = ConnectionsLocked();
  }
  for (const auto& connection : connections) {
    if (connection->may_announce(server.get())) connection->AnnounceIds(server->ids, {});
  }
}

void TransportImpl::RemoveServer(const std::shared_ptr<ServerParts>& server) {
  std::vector<std::shared_ptr<WireConnection>> connections;
  std::vector<std::string> removed;
  {
    std::lock_guard lock(mutex_);
    const auto found = std::find(servers_.begin(), servers_.end(), server);
    if (found == servers_.end()) return;
    servers_.erase(found);
    for (const auto& listening : server->listening) listening.listener->Close();
    const std::vector<std::string> left = AnnouncedLocked(true, nullptr);
    for (const std::string& id : server->ids) {
      if (!std::binary_search(left.begin(), left.end(), id)) removed.push_back(id);
    }
    connections = ConnectionsLocked();
  }
  for (const auto& connection : connections) {
    connection->CloseServerChannels(server.get(), connection->server() == server);
    if (!removed.empty() && connection->may_announce(server.get())) connection->AnnounceIds({}, removed);
  }
}

StatusCode TransportImpl::FindService(const WireConnection& from, const std::string& target,
                                      const std::string& service, uint64_t fingerprint,
                                      ServerChannel* channel) {
  const bool by_endpoint = net::Endpoint(target).kind() == net::Endpoint::Kind::kTcp;
  bool target_known = false;
  std::lock_guard lock(mutex_);
  for (const auto& server : servers_) {
    if (by_endpoint ? server != from.server() : !from.may_announce(server.get())) continue;
    if (!by_endpoint && std::find(server->ids.begin(), server->ids.end(), target) == server->ids.end())
      continue;
    target_known = true;
    const auto found = server->services.find(service);
    if (found == server->services.end() || found->second->info().fingerprint != fingerprint) continue;
    channel->service = found->second;
    channel->server = server.get();
    return StatusCode::kOk;
  }
  return target_known ? StatusCode::kUnimplemented : StatusCode::kUnavailable;
}

std::shared_ptr<WireConnection> TransportImpl::RouteForwarded(const WireConnection& from,
                                                              std::string* target) {
  ForwardRouter router;
  {
    std::lock_guard lock(mutex_);
    if (!forwarding_) return nullptr;
    router = router_;
    if (!router) return RouteLocked(*target, &from);
  }
  ForwardRoute route = router(from.info(), *target);
  *target = std::move(route.target);
  std::lock_guard lock(mutex_);
  return RouteLocked(route.via, &from);
}

void TransportImpl::ConnectionMayBeUnused(WireConnection& connection) {
  std::lock_guard lock(mutex_);
  for (const auto& [text, entry] : outgoing_) {
    if (entry->connection.get() != &connection) continue;
    if (entry->managed || entry->phase != Outgoing::Phase::kUp || !entry->waiters.empty() ||
        !connection.unused()) {
      return;
    }
    const Entry kept = entry;
    outgoing_.erase(text);
    connection.Close(CloseReason::kLocalClose);
    return;
  }
}

}  // namespace zem::rpc
