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

/// What the proxy tells its subscribers.
struct ProxyInfo {
  std::optional<std::string> transport_node_id;
  std::optional<std::pair<uint32_t, uint32_t>> version;
  /// Id to "is master"; an entry may be told without its id or without its flag.
  struct Entry {
    std::optional<std::string> id;
    std::optional<bool> master;
  };
  std::vector<Entry> aphs;
};

/// The node's message proxy: tells who the APHs are, and carries calls between them and the agent.
///
/// Threads: all operations from any thread but the proxy's own.
class Proxy {
 public:
  /// Listens on both endpoints.  Throws when one is taken.
  Proxy(const std::string& info_endpoint, const std::string& forwarding_endpoint);
  ~Proxy();

  /// To every subscriber now and to each that comes later.
  void Publish(const ProxyInfo& info);

  /// Ends every subscription with a status; new ones are taken.
  void EndSubscriptions(int status);

  /// While on, subscriptions are refused with `status`.
  void RefuseSubscriptions(std::optional<int> status);

  /// While off, the forwarding endpoint is closed; agent and APHs lose their connections to it.
  void SetForwarding(bool on);

  size_t subscribers() const;

  /// Ids that peers of the forwarding endpoint have announced, by peer.
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
