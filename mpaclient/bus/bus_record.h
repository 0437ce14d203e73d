#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/busclient/rmqclient.h"

namespace zem {

/// The type of a record; "in" and "out" are seen from the vertical.
enum BusMessageType : int32_t {
  kRmqClientRegistrationRequest = 1,
  kRmqClientRegistrationAck = 2,  ///< in
  kRmqClientPayload = 3,          ///< in
  kRmqVsmPayload = 4,             ///< out
  kRmqClientClose = 5,            ///< in
  kRmqHostClientRegistrationRequest = 6,
  kRmqHostPayload = 7,
  kRmqMpRpcRequest = 8,        ///< in
  kRmqMpRpcResponse = 9,       ///< in
  kRmqClientRpcRequest = 10,   ///< out, expects a response
  kRmqClientRpcResponse = 11,  ///< out, answers an 8; also accepted in
  kRmqClientPublish = 12,      ///< out
  kRmqMpPublish = 13,          ///< in
};

/// The name of a record type, such as "RMQ_CLIENT_PUBLISH"; "UNKNOWN_RMQ_CLIENT_MESSAGE_TYPE" for a number
/// that is none.
const char* BusMessageTypeName(int32_t type);

inline constexpr int kBusNoSession = -2001;
inline constexpr int kBusInvalidCookie = -2002;
inline constexpr int kBusConnectFail = -2008;

/// The name of a bus error, such as "CONNECT_FAIL"; "UNKNOWN" for a number that is none.
const char* BusErrorName(int error);

inline constexpr const char* kProtobufContent = "application/protobuf";

/// The header document of a record.  An empty text is an absent key.
struct BusHeader {
  std::string type_id;                    ///< "__TypeId__", the full dotted message name
  std::string correlation_id;             ///< "amqp_correlationId"
  std::string reply_to;                   ///< "amqp_replyTo"
  std::string app_type;                   ///< "app_type"
  std::string app_id;                     ///< "app_id"
  std::string session_id;                 ///< "session-id"
  std::string message_id;                 ///< "amqp-message-id"
  std::string request_type;               ///< "request_type"
  std::string msg_class;                  ///< "msg_type" as a text: the class that carries the message
  std::optional<int64_t> vdr_request_id;  ///< "vdr-request-id"
  std::optional<int64_t> msg_type;        ///< "msg_type" as a number, unless it is a text

  /// The BSON bytes.
  std::vector<uint8_t> Encode() const;

  /// Returns nothing unless the bytes are one well-formed document that ends within them.  Unknown keys and
  /// values of another type are skipped.
  static std::optional<BusHeader> Decode(std::span<const uint8_t> bytes);

  /// The header of a record; nothing when the record has no header, or a header that is malformed or longer
  /// than 64 KiB.
  static std::optional<BusHeader> Of(const rmqClientMessage& message);
};

/// One element of a record's header.
struct BusHeaderElement {
  int type;  ///< of BSON
  const char* key;
  const char* text;  ///< null unless it is a text
  std::optional<int64_t> number;
};

/// Calls `visit` for each element of the header of a record, as far as it is well-formed.
void VisitBusHeader(const rmqClientMessage& message,
                    const std::function<void(const BusHeaderElement&)>& visit);

/// Owns the buffers of a record.  `message()` is the plain record that points into them.
class BusRecord {
 public:
  explicit BusRecord(BusMessageType type) : type_(type) {}
  ~BusRecord();
  BusRecord(BusRecord&& other) noexcept;
  BusRecord& operator=(BusRecord&& other) noexcept;
  BusRecord(const BusRecord&) = delete;
  BusRecord& operator=(const BusRecord&) = delete;

  BusRecord& SetApp(std::string app_type, std::string app_id);
  BusRecord& SetCookie(int32_t cookie);
  BusRecord& SetManagerVersion(uint32_t major, uint32_t minor);
  BusRecord& SetHeader(const BusHeader& header);
  BusRecord& SetRoutingKey(std::string key);
  BusRecord& SetContentType(std::string type);
  BusRecord& SetPayload(std::string payload);
  /// Takes over a block from malloc, which is freed with the record.
  BusRecord& SetFreeBlock(void* block);

  BusMessageType type() const { return type_; }
  const std::string& payload() const { return payload_; }

  /// Valid until the record is changed, moved or destroyed.  Absent parts are null.
  rmqClientMessage message() const;

  /// Copies everything that `message` points to, apart from its free block.
  static BusRecord Copy(const rmqClientMessage& message);

 private:
  BusMessageType type_;
  int32_t cookie_ = -1;
  uint32_t mp_major_version_ = 0;
  uint32_t mp_minor_version_ = 0;
  std::optional<std::string> app_type_;
  std::optional<std::string> app_id_;
  std::optional<std::string> routing_key_;
  std::optional<std::string> content_type_;
  std::vector<uint8_t> header_;
  std::string payload_;
  void* free_block_ = nullptr;
};

}  // namespace zem
