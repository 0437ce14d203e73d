#include "platform/rpc/hub/transport_impl.h"

#include <utility>

namespace zem::rpc {

TransportImpl::TransportImpl(AsioZemProvider& provider)
    : connections_(provider), outgoing_(provider, connections_), stubs_(provider, outgoing_, stop_hooks_) {}

// The loop has ended and runs nothing any more, so the statuses that are still due are reported from here.
TransportImpl::~TransportImpl() {
  Stop();
  connections_.DetachLoop();
}

void TransportImpl::SetConnectionHooks(std::function<void(const ConnectionInfo&)> up,
                                       std::function<void(const ConnectionInfo&, CloseReason)> down) {
  connections_.SetHooks(std::move(up), std::move(down));
}

void TransportImpl::EnableForwarding(ForwardRouter router) {
  connections_.EnableForwarding(std::move(router));
}

std::vector<std::string> TransportImpl::LocalEndpointIds() const { return connections_.LocalIds(); }

void TransportImpl::Stop() {
  const auto hooks = stop_hooks_.Stop();
  outgoing_.Stop();
  connections_.Stop();
  for (const auto& [number, hook] : hooks) hook();
}

}  // namespace zem::rpc
