#pragma once

#include <functional>
#include <memory>

#include "platform/rpc/client.h"
#include "platform/rpc/close_reason.h"
#include "platform/rpc/stub_factory.h"

namespace orlane::zem {
class VoidMsg;
namespace messaging {
class GenericUnifiedMsg;
}
}  // namespace orlane::zem

namespace zem {

/// The two calls that every manager-side service has, whichever service it is.
class MpStub {
 public:
  using GenericUnifiedMsg = orlane::zem::messaging::GenericUnifiedMsg;
  using VoidMsg = orlane::zem::VoidMsg;

  virtual ~MpStub() = default;
  virtual rpc::CallHandle<VoidMsg> MsgHandler(const rpc::ClientContext& context,
                                              const GenericUnifiedMsg& message,
                                              rpc::CallObserver<VoidMsg>* observer) = 0;
  virtual rpc::CallHandle<GenericUnifiedMsg> RpcMsgHandler(
      const rpc::ClientContext& context, const GenericUnifiedMsg& message,
      rpc::CallObserver<GenericUnifiedMsg>* observer) = 0;
  virtual void SetOnStreamDown(std::function<void(rpc::CloseReason)> hook) = 0;
};

/// Asks the RPC library for stubs of one vertical's service.
class MpStubSource {
 public:
  using StubDone = std::function<void(std::unique_ptr<MpStub>, const rpc::Status&)>;

  virtual ~MpStubSource() = default;
  virtual void RequestStub(rpc::StubRequest request, StubDone done) = 0;
};

}  // namespace zem
