#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace google::protobuf {
class Message;
}

namespace Ctxt {

/// One message between a client of the engine and the manager.
struct CtxtMsg {
  std::string msgType;
  std::string appId;
  std::string appType;
  /// The type name that travels; it names the class of `payload`.
  std::string payloadType;
  /// Null in a received message whose bytes could not be read.
  std::shared_ptr<google::protobuf::Message> payload;
  uint64_t payloadLen = 0;
  std::string correlationId;
  std::string replyTo;
};

}  // namespace Ctxt
