#include <memory>

#include "platform/provider/provider.h"
#include "platform/rpc/hub/transport_impl.h"

namespace zem {

rpc::Transport& AsioZemProvider::rpc() {
  const auto object = Attach([this] {
    auto transport = std::make_shared<rpc::TransportImpl>(*this);
    Attachment attachment;
    attachment.stop = [raw = transport.get()] { raw->Stop(); };
    attachment.object = std::move(transport);
    return attachment;
  });
  return *std::static_pointer_cast<rpc::TransportImpl>(object);
}

}  // namespace zem
