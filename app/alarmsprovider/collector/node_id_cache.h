#pragma once

#include <mutex>
#include <string>

#include "platform/core/uuid.h"

namespace zem::Tarvik {

/// Where the ids of the node are written down.
struct NodeIdFiles {
  std::string issue = "/etc/zem_issue";
  /// On a manager node.
  std::string serial_number = "/common/configs/serial_number";
  std::string proxy = "/etc/orlane/zem-appl-proxy/appl-proxy-public-cfg.json";
  /// On all other nodes, for the time until the proxy has named an id.
  std::string host = "/etc/orlane/zem/host-cfg.xml";
};

/// The ids under which the collector knows this node.  On a manager node they come from files; elsewhere both
/// are the transport node id, which the message proxy may change at any time.
///
/// Threads: all operations from any thread.  They may read small local files, never with the mutex held.
class NodeIdCache {
 public:
  explicit NodeIdCache(NodeIdFiles files = {});

  /// Returns an empty text while the node has no uuid.  The label only names the id in the log: "Node-uuid",
  /// or "Endpoint-id" when it is false.
  std::string GetNodeUuid(bool withNodeLabel);
  /// Returns an empty text while the node has no endpoint id.
  std::string GetEndpointId();

 private:
  bool IsManagerNode() const;
  std::string ManagerUuid();
  std::string TransportNodeUuid(const char* label);

  const NodeIdFiles files_;
  std::mutex mutex_;  // guards the two ids
  std::string endpoint_id_;
  std::string node_uuid_;
};

/// Sets node id and endpoint id of a message to the collector; an id that is not known stays unset.
template <class Message>
void SetNodeIds(NodeIdCache& ids, Message* message) {
  if (const auto node = ParseUuid(ids.GetNodeUuid(true))) SetUuid(*node, message->mutable_node_id());
  if (const auto endpoint = ParseUuid(ids.GetEndpointId()))
    SetUuid(*endpoint, message->mutable_endpoint_id());
}

}  // namespace zem::Tarvik
