#pragma once

#include <memory>

#include "platform/rpc/stub_factory.h"

namespace zem {
class AsioZemProvider;
}

namespace zem::rpc {

class OutgoingConnections;
class StopHooks;

/// Opens the channels of stubs, with retries and a time-out.
///
/// Threads: all operations from any thread.
class StubFactoryImpl final : public StubFactory {
 public:
  StubFactoryImpl(AsioZemProvider& provider, OutgoingConnections& outgoing, StopHooks& stop_hooks)
      : provider_(provider), outgoing_(outgoing), stop_hooks_(stop_hooks) {}
  std::shared_ptr<StubCreatorBase> CreateChannel(const ServiceInfo& service, StubRequest request,
                                                 ChannelDone done) override;

 private:
  AsioZemProvider& provider_;
  OutgoingConnections& outgoing_;
  StopHooks& stop_hooks_;
};

}  // namespace zem::rpc
