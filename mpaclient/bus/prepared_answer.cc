#include "mpaclient/bus/prepared_answer.h"

#include <google/protobuf/message_lite.h>

#include <utility>

namespace zem {

std::optional<PreparedAnswer> PreparedAnswer::For(const rmqClientMessage& request, std::string type_id,
                                                  int32_t cookie) {
  std::optional<BusHeader> header = BusHeader::Of(request);
  if (!header) return std::nullopt;
  return PreparedAnswer(std::move(header->correlation_id), std::move(header->reply_to), std::move(type_id),
                        cookie);
}

PreparedAnswer::PreparedAnswer(std::string correlation_id, std::string reply_to, std::string type_id,
                               int32_t cookie)
    : correlation_id_(std::move(correlation_id)),
      reply_to_(std::move(reply_to)),
      type_id_(std::move(type_id)),
      cookie_(cookie) {}

int PreparedAnswer::Send(const google::protobuf::MessageLite& message, const SendFunction& send) {
  if (sent_) return kAlreadySent;
  std::string payload;
  if (!message.IsInitialized() || !message.SerializeToString(&payload)) return kNotSerialized;
  return SendPayload(std::move(payload), send);
}

int PreparedAnswer::SendPayload(std::string payload, const SendFunction& send) {
  if (std::exchange(sent_, true)) return kAlreadySent;
  BusHeader header;
  header.type_id = type_id_;
  header.correlation_id = correlation_id_;
  BusRecord record(kRmqClientRpcResponse);
  record.SetCookie(cookie_)
      .SetHeader(header)
      .SetRoutingKey(reply_to_)
      .SetContentType(kProtobufContent)
      .SetPayload(std::move(payload));
  rmqClientMessage message = record.message();
  return send(message);
}

}  // namespace zem
