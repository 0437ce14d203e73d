#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/provider/provider.h"

namespace zem::rpc {
class Server;
}

namespace zem::sim {

/// The list of APHs, as the proxy sends it to its subscribers.
struct ProxyInfo {
  std::optional<std::string> transport_node_id;
  std::optional<std::pair<uint32_t, uint32_t>> version;
  /// APH id to "is master"; an entry may be sent without its id or without its flag.
  struct Entry {
    std::optional<std::string> id;
    std::optional<bool> master;
  };
  std::vector<Entry> aphs;
};

/// The node's message proxy: publishes the list of APHs, and carries calls between them and the agent.
///
/// Threads: all operations from any thread but the proxy's own.
class Proxy {
 public:
  /// Listens on both endpoints.  Throws when one of them is in use.
  Proxy(const std::string& info_endpoint, const std::string& forwarding_endpoint);
  ~Proxy();

  /// Sends the list to every subscriber now and to each later one.
  void Publish(const ProxyInfo& info);

  /// Ends every subscription with a status; new ones are accepted.
  void EndSubscriptions(int status);

  /// While on, new subscriptions are refused with `status`.
  void RefuseSubscriptions(std::optional<int> status);

  /// While off, the forwarding endpoint is closed; agent and APHs lose their connections to it.
  void SetForwarding(bool on);

  size_t subscribers() const;

  /// The ids that each peer of the forwarding endpoint has announced.
  std::vector<std::string> PeerIds() const;

 private:
  class InfoService;

  const std::string forwarding_endpoint_;
  AsioZemProvider provider_;
  std::shared_ptr<InfoService> info_service_;
  std::unique_ptr<rpc::Server> info_server_;
  std::unique_ptr<rpc::Server> forwarding_server_;

  mutable std::mutex mutex_;  // guards peers_
  std::map<std::string, std::vector<std::string>> peers_;
};

}  // namespace zem::sim
