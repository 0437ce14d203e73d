#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/rpc/hub/connection_table.h"
#include "platform/rpc/hub/outgoing_connections.h"
#include "platform/rpc/hub/stop_hooks.h"
#include "platform/rpc/hub/stub_creator.h"
#include "platform/rpc/transport.h"

namespace zem::rpc {

/// Threads: all operations from any thread.
class TransportImpl final : public Transport, public std::enable_shared_from_this<TransportImpl> {
 public:
  explicit TransportImpl(AsioZemProvider& provider);
  ~TransportImpl() override;

  AsioZemProvider& provider() override { return connections_.provider(); }
  StubFactory& stubs() override { return stubs_; }
  void SetConnectionHooks(std::function<void(const ConnectionInfo&)> up,
                          std::function<void(const ConnectionInfo&, CloseReason)> down) override;
  void EnableForwarding(ForwardRouter router) override;
  std::vector<std::string> LocalEndpointIds() const override;

  /// No more connections in or out; what there is ends with kLocalClose.
  void Stop();

  ConnectionTable& connections() { return connections_; }
  OutgoingConnections& outgoing() { return outgoing_; }

 private:
  ConnectionTable connections_;
  OutgoingConnections outgoing_;
  StopHooks stop_hooks_;
  StubFactoryImpl stubs_;
};

}  // namespace zem::rpc
