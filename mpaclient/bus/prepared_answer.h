#pragma once

#include <functional>
#include <optional>
#include <string>

#include "mpaclient/bus/bus_record.h"

namespace google::protobuf {
class MessageLite;
}

namespace zem {

/// The answer to a request of the manager: keeps what the answer needs of the request until its payload is
/// known.
///
/// Threads: not safe for concurrent use; the owner guards it.
class PreparedAnswer {
 public:
  /// Returns nothing when the request has no readable header.  `type_id` is the full dotted name of the
  /// answer's message; `cookie` is the client's.  A request without reply-to gives an empty routing key.
  static std::optional<PreparedAnswer> For(const rmqClientMessage& request, std::string type_id,
                                           int32_t cookie);

  PreparedAnswer(std::string correlation_id, std::string reply_to, std::string type_id, int32_t cookie);

  const std::string& correlation_id() const { return correlation_id_; }
  const std::string& reply_to() const { return reply_to_; }
  bool sent() const { return sent_; }

  /// Sends one record of type RMQ_CLIENT_RPC_RESPONSE and returns the result of `send`.  A second call sends
  /// nothing and returns kAlreadySent.  A message that lacks required fields is not sent, the result is
  /// kNotSerialized, and the answer may be sent with another message.
  using SendFunction = std::function<int(rmqClientMessage&)>;
  static constexpr int kAlreadySent = -1;
  static constexpr int kNotSerialized = -2;
  [[nodiscard]] int Send(const google::protobuf::MessageLite& message, const SendFunction& send);
  [[nodiscard]] int SendPayload(std::string payload, const SendFunction& send);

 private:
  std::string correlation_id_;
  std::string reply_to_;
  std::string type_id_;
  int32_t cookie_;
  bool sent_ = false;
};

}  // namespace zem
