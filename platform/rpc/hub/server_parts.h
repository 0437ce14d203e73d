#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/rpc/connection.h"
#include "platform/rpc/server.h"
#include "platform/rpc/stream/byte_stream.h"

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
  bool refuses_connections = false;  // has been logged; guarded by the connection table's mutex
};

}  // namespace zem::rpc
