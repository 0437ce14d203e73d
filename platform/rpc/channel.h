#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/rpc/close_reason.h"

namespace google::protobuf {
class MessageLite;
}

namespace zem::rpc {

class ClientCall;
class ClientContext;

/// A channel as its stubs share it: one source, one target, one service.  The end of the object closes it.
///
/// Threads: all operations from any thread.
class Channel {
 public:
  Channel() = default;
  virtual ~Channel() = default;
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  virtual void SetOnDown(std::function<void(CloseReason)> hook) = 0;

  virtual const std::string& source_id() const = 0;
  virtual const std::string& target() const = 0;
  virtual bool down() const = 0;

  /// What a call begins with.
  enum class Requests {
    kOne,     ///< `first` is the only request
    kStream,  ///< requests follow by `Write`
    kBatch,   ///< requests come from `ClientCall::NextRequest`
  };
  /// Starts `call`; whatever goes wrong comes as its status.
  virtual void Start(const std::shared_ptr<ClientCall>& call, uint16_t method, const ClientContext& context,
                     Requests requests, const google::protobuf::MessageLite* first) = 0;
};

}  // namespace zem::rpc
