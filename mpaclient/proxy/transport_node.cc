#include "mpaclient/proxy/transport_node.h"

#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "platform/core/uuid.h"

namespace zem {

std::optional<boost::uuids::uuid> TransportNodeId() {
  const auto proxy = TnProxyClientCommon::getInstance();
  return proxy == nullptr ? std::nullopt : ParseUuid(proxy->getTnUuidStr());
}

}  // namespace zem
