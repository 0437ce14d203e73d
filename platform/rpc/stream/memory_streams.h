#pragma once

#include <functional>
#include <memory>

#include "platform/rpc/stream/byte_stream.h"

namespace zem::rpc {

/// The byte streams of the process's MemoryNetwork.
class MemoryStreams {
 public:
  static bool Exist();
  static std::shared_ptr<ConnectAttempt> Connect(AsioZemProvider& provider, const net::Endpoint& endpoint,
                                                 StreamDone done);
  static std::unique_ptr<StreamListener> Listen(
      AsioZemProvider& provider, const net::Endpoint& endpoint,
      std::function<void(std::shared_ptr<ByteStream>, std::shared_ptr<Strand>)> accepted);
};

}  // namespace zem::rpc
