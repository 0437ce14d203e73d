#include "agent/status_sources.h"

#include <string>

#include "covedbclient/covedb_client.h"
#include "framework/dataplane/lcp_adapter.h"
#include "mpaclient/client_registry.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "mpaclient/verticals.h"

namespace zem::Tarvik {
namespace {

// The verticals are told of when the manager itself can be reached; otherwise all of them are down.
void DescribeVerticals(std::vector<PartState>* parts) {
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
  parts->push_back(
      {"verticals", std::to_string(count) + " of " + std::to_string(asking) + " have no road: " + down,
       "each one connects by itself within a minute; if one does not, the manager's side of it refuses"});
}

}  // namespace

void DescribeManager(const TnProxyClientCommon& proxy, std::vector<PartState>* parts) {
  PartState manager{"manager", {}, {}};
  if (!proxy.connected_for_forwarding()) {
    manager.fault = "no connection to the node's message proxy (port 4096)";
    manager.heals = "the daemon connects by itself when the proxy runs; look whether it does";
  } else if (proxy.aphs().empty()) {
    manager.fault = "the node's message proxy knows no proxy at the manager (port 9004)";
    manager.heals = "the list comes from the proxy when the node is joined and the manager can be reached";
  }
  const bool reachable = manager.fault.empty();
  parts->push_back(std::move(manager));
  if (reachable) DescribeVerticals(parts);
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
  }
  parts->push_back(std::move(store));
}

}  // namespace zem::Tarvik
