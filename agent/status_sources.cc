#include "agent/status_sources.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "covedbclient/covedb_client.h"
#include "framework/dataplane/lcp_adapter.h"
#include "mpaclient/client_registry.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "mpaclient/verticals.h"

namespace zem::Tarvik {
namespace {

constexpr std::string_view kStoreQueue = "storeModifications";
// A store that works answers within milliseconds.
constexpr auto kStorePatience = std::chrono::seconds(10);

// The verticals are told of when the manager itself can be reached; otherwise all of them are down.
void DescribeVerticals(const std::string& master, std::vector<PartState>* parts) {
  std::string down;
  size_t count = 0;
  size_t asking = 0;
  for (const auto& [name, client] : ClientRegistry::All()) {
    const Vertical* const vertical = FindVertical(name);
    // One that only answers has no road of its own.
    if (vertical != nullptr && vertical->traits.only_serves) continue;
    ++asking;
    if (client->connection_state() == MpaClient::kConnected) continue;
    down += (count++ == 0 ? "" : ", ") + name;
  }
  if (asking == 0) return;
  if (count == 0) {
    parts->push_back({"verticals", {}, {}});
    return;
  }
  if (count == asking) {
    parts->push_back({"verticals", "none of the " + std::to_string(asking) + " has a road to the manager",
                      "each one connects by itself within a minute when the manager's master proxy " +
                          master + " can be reached and answers"});
    return;
  }
  parts->push_back(
      {"verticals", std::to_string(count) + " of " + std::to_string(asking) + " have no road: " + down,
       "each one connects by itself within a minute; if one does not, the manager's side of it refuses"});
}

}  // namespace

QueueGauge::Reading StoreWrites() {
  QueueGauge::Reading writes;
  for (const QueueGauge::Reading& queue : QueueGauge::ReadAll()) {
    if (queue.name != kStoreQueue) continue;
    writes.depth += queue.depth;
    writes.oldest = std::max(writes.oldest, queue.oldest);
  }
  return writes;
}

void DescribeManager(const TnProxyClientCommon& proxy, std::vector<PartState>* parts) {
  PartState manager{"manager", {}, {}};
  const TnProxyClientCommon::AphMap aphs = proxy.aphs();
  const auto master = std::ranges::find_if(aphs, [](const auto& aph) { return aph.second; });
  if (!proxy.connected_for_forwarding()) {
    manager.fault = "no connection to the node's message proxy (port 4096)";
    manager.heals = "the daemon connects by itself when the proxy runs; look whether it does";
  } else if (aphs.empty()) {
    manager.fault = "the node's message proxy knows no proxy at the manager (port 9004)";
    manager.heals = "the list comes from the proxy when the node is joined and the manager can be reached";
  } else if (master == aphs.end()) {
    manager.fault = "none of the manager's " + std::to_string(aphs.size()) + " proxies is its master";
    manager.heals =
        "the daemon connects by itself when the manager has named one; look at the manager's nodes";
  }
  const bool reachable = manager.fault.empty();
  parts->push_back(std::move(manager));
  if (reachable) DescribeVerticals(master->first, parts);
}

void DescribeDataplane(const LcpAdapter& adapter, std::vector<PartState>* parts) {
  const bool up = adapter.connected();
  parts->push_back({"dataplane link", up ? "" : "the dataplane agent is not connected",
                    up ? "" : "the daemon connects by itself within five seconds when that agent runs"});
}

void DescribeStore(const covedb::CoveDbClient* client, std::vector<PartState>* parts) {
  if (client == nullptr) return;
  const covedb::ClientState state = client->state();
  PartState store{"store", {}, {}};
  if (state != covedb::ClientState::CONNECTED) {
    store.fault = std::string("not connected (") + covedb::ClientStateName(state) + ", port 2480)";
    store.heals = "the daemon connects by itself when the store's process runs; writes wait until then";
  } else if (const QueueGauge::Reading writes = StoreWrites(); writes.oldest > kStorePatience) {
    store.fault = "is connected and does not answer: " + std::to_string(writes.depth) +
                  (writes.depth == 1 ? " write waits" : " writes wait") + ", the oldest for " +
                  std::to_string(std::chrono::duration_cast<std::chrono::seconds>(writes.oldest).count()) +
                  " s";
    store.heals = "the writes are done when the store answers; look at the store's process";
  }
  parts->push_back(std::move(store));
}

}  // namespace zem::Tarvik
