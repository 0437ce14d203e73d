#include "platform/rpc/client.h"

#include <utility>

#include "platform/rpc/channel.h"

namespace zem::rpc {

void StubBase::SetOnStreamDown(std::function<void(CloseReason)> hook) {
  if (channel_) channel_->SetOnDown(std::move(hook));
}

}  // namespace zem::rpc
