#include "platform/rpc/hub/connection_table.h"

#include <algorithm>
#include <set>
#include <utility>

#include "platform/core/lib_log.h"
#include "platform/metrics/process_metrics.h"

namespace zem::rpc {

void ConnectionTable::DetachLoop() {
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

void ConnectionTable::SetHooks(std::function<void(const ConnectionInfo&)> up,
                               std::function<void(const ConnectionInfo&, CloseReason)> down) {
  std::lock_guard lock(mutex_);
  up_hook_ = std::move(up);
  down_hook_ = std::move(down);
}

void ConnectionTable::EnableForwarding(Transport::ForwardRouter router) {
  std::lock_guard lock(mutex_);
  forwarding_ = true;
  router_ = std::move(router);
}

std::vector<std::string> ConnectionTable::LocalIds() const {
  std::lock_guard lock(mutex_);
  return AnnouncedLocked(true, nullptr);
}

std::vector<std::string> ConnectionTable::AnnouncedLocked(bool inbound, const ServerParts* server) const {
  std::set<std::string> ids;
  for (const auto& candidate : servers_) {
    if (inbound || candidate.get() == server) ids.insert(candidate->ids.begin(), candidate->ids.end());
  }
  return {ids.begin(), ids.end()};
}

void ConnectionTable::Stop() {
  std::vector<std::shared_ptr<WireConnection>> connections;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    connections = AllLocked();
    for (const auto& server : servers_) {
      for (const auto& listening : server->listening) {
        if (listening.listener) listening.listener->Close();
      }
    }
  }
  for (const auto& connection : connections) connection->Close(CloseReason::kLocalClose);
}

std::shared_ptr<WireConnection> ConnectionTable::Make(std::shared_ptr<ByteStream> stream,
                                                      std::shared_ptr<Strand> strand,
                                                      WireConnection::Settings settings) {
  std::lock_guard lock(mutex_);
  if (stopping_) return nullptr;
  settings.initiator = true;
  settings.announced = AnnouncedLocked(settings.options.rpc.inbound, nullptr);
  auto connection =
      std::make_shared<WireConnection>(*this, std::move(stream), std::move(strand), std::move(settings));
  AddLocked(connection);
  return connection;
}

std::shared_ptr<WireConnection> ConnectionTable::RouteTo(const std::string& id) const {
  std::lock_guard lock(mutex_);
  auto connection = RouteLocked(id, nullptr);
  if (!connection && !gateways_.empty()) connection = connections_.at(gateways_.back());
  return connection;
}

std::vector<std::shared_ptr<WireConnection>> ConnectionTable::AllLocked() const {
  std::vector<std::shared_ptr<WireConnection>> all;
  all.reserve(connections_.size());
  for (const auto& [address, connection] : connections_) all.push_back(connection);
  return all;
}

std::shared_ptr<WireConnection> ConnectionTable::RouteLocked(const std::string& id,
                                                             const WireConnection* except) const {
  const auto found = routes_.find(id);
  if (found == routes_.end()) return nullptr;
  for (auto at = found->second.rbegin(); at != found->second.rend(); ++at) {
    const auto connection = connections_.find(*at);
    if (*at != except && connection != connections_.end()) return connection->second;
  }
  return nullptr;
}

void ConnectionTable::AddLocked(const std::shared_ptr<WireConnection>& connection) {
  connections_.emplace(connection.get(), connection);
  if (living_.size() >= prune_living_at_) {
    living_.erase(
        std::remove_if(living_.begin(), living_.end(), [](const auto& weak) { return weak.expired(); }),
        living_.end());
    prune_living_at_ = std::max<size_t>(64, 2 * living_.size());
  }
  living_.push_back(connection);
}

// Without a limit, a peer that keeps connecting could take every descriptor of the process.
bool ConnectionTable::MayAcceptLocked(ServerParts& server, size_t limit) const {
  const auto accepted = std::count_if(connections_.begin(), connections_.end(), [&server](const auto& entry) {
    return entry.second->settings().server.lock().get() == &server;
  });
  const bool full = static_cast<size_t>(accepted) >= limit;
  if (full && !server.refuses_connections) {
    ZEM_LIB_LOG(Library::kNet, kLogWarning, "%zu connections accepted, closing further ones", limit);
  }
  if (full) metrics::CounterOf(metrics::MetricId::kRpcLimits, "connections").Add();
  server.refuses_connections = full;
  return !full;
}

void ConnectionTable::OnAccepted(const std::weak_ptr<ServerParts>& weak, const ConnectionOptions& options,
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
    settings.on_up = [this](WireConnection& c) { Up(c); };
    settings.on_down = [this](WireConnection& c, CloseReason reason, bool introduced) {
      Down(c, reason, introduced);
    };
    connection =
        std::make_shared<WireConnection>(*this, std::move(stream), std::move(strand), std::move(settings));
    AddLocked(connection);
  }
  connection->Begin();
}

void ConnectionTable::Up(WireConnection& connection) {
  const ConnectionInfo info = connection.info();
  std::function<void(const ConnectionInfo&)> hook;
  {
    std::lock_guard lock(mutex_);
    for (const std::string& id : info.peer_ids) routes_[id].push_back(&connection);
    if (connection.settings().options.rpc.forward) gateways_.push_back(&connection);
    hook = up_hook_;
  }
  if (hook) hook(info);
}

void ConnectionTable::Down(WireConnection& connection, CloseReason reason, bool introduced) {
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

void ConnectionTable::PeerIdsChanged(WireConnection& connection, const std::vector<std::string>& added,
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

void ConnectionTable::AddServer(const std::shared_ptr<ServerParts>& server) {
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
    if (!server->ids.empty()) connections = AllLocked();
  }
  for (const auto& connection : connections) {
    if (connection->settings().may_announce(server.get())) connection->AnnounceIds(server->ids, {});
  }
}

void ConnectionTable::RemoveServer(const std::shared_ptr<ServerParts>& server) {
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
    connections = AllLocked();
  }
  for (const auto& connection : connections) {
    connection->CloseServerChannels(server.get(), connection->settings().server.lock() == server);
    if (!removed.empty() && connection->settings().may_announce(server.get()))
      connection->AnnounceIds({}, removed);
  }
}

StatusCode ConnectionTable::FindService(const WireConnection& from, const std::string& target,
                                        const std::string& service, uint64_t fingerprint,
                                        ServerChannel* channel) {
  const bool by_endpoint = net::Endpoint(target).kind() == net::Endpoint::Kind::kTcp;
  bool target_known = false;
  std::lock_guard lock(mutex_);
  for (const auto& server : servers_) {
    if (by_endpoint ? server != from.settings().server.lock() : !from.settings().may_announce(server.get()))
      continue;
    if (!by_endpoint && std::find(server->ids.begin(), server->ids.end(), target) == server->ids.end())
      continue;
    target_known = true;
    const auto found = server->services.find(service);
    if (found == server->services.end() || found->second->info().fingerprint != fingerprint) continue;
    channel->Serve(found->second, server.get());
    return StatusCode::kOk;
  }
  return target_known ? StatusCode::kUnimplemented : StatusCode::kUnavailable;
}

std::shared_ptr<WireConnection> ConnectionTable::RouteForwarded(const WireConnection& from,
                                                                std::string* target) {
  Transport::ForwardRouter router;
  {
    std::lock_guard lock(mutex_);
    if (!forwarding_) return nullptr;
    router = router_;
    if (!router) return RouteLocked(*target, &from);
  }
  Transport::ForwardRoute route = router(from.info(), *target);
  *target = std::move(route.target);
  std::lock_guard lock(mutex_);
  return RouteLocked(route.via, &from);
}

}  // namespace zem::rpc
