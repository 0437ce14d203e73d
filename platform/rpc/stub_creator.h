#pragma once

#include <memory>

#include "platform/rpc/stub_factory.h"

namespace zem::rpc {

class TransportImpl;

class StubFactoryImpl final : public StubFactory {
 public:
  explicit StubFactoryImpl(TransportImpl& transport) : transport_(transport) {}
  std::shared_ptr<StubCreatorBase> CreateChannel(const ServiceInfo& service, StubRequest request,
                                                 ChannelDone done) override;

 private:
  TransportImpl& transport_;
};

}  // namespace zem::rpc
