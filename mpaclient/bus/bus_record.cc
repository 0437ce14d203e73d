#include "mpaclient/bus/bus_record.h"

#include <bson/bson.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace zem {
namespace {

constexpr size_t kMaxHeader = 64 * 1024;
constexpr size_t kLengthBytes = 4;

constexpr std::array kTypeNames = {
    "RMQ_CLIENT_REGISTRATION_REQUEST",
    "RMQ_CLIENT_REGISTRATION_ACK",
    "RMQ_CLIENT_PAYLOAD",
    "RMQ_VSM_PAYLOAD",
    "RMQ_CLIENT_CLOSE",
    "RMQ_HOST_CLIENT_REGISTRATION_REQUEST",
    "RMQ_HOST_PAYLOAD",
    "RMQ_MP_RPC_REQUEST",
    "RMQ_MP_RPC_RESPONSE",
    "RMQ_CLIENT_RPC_REQUEST",
    "RMQ_CLIENT_RPC_RESPONSE",
    "RMQ_CLIENT_PUBLISH",
    "RMQ_MP_PUBLISH",
};

struct ErrorRow {
  int error;
  const char* name;
};
constexpr std::array kErrors = {
    ErrorRow{-2000, "ENOMEM"},        ErrorRow{-2001, "NO_SESSION"},    ErrorRow{-2002, "INVALID_COOKIE"},
    ErrorRow{-2003, "INVALID_ARGS"},  ErrorRow{-2004, "NULL_PTR"},      ErrorRow{-2005, "ERR_SEND"},
    ErrorRow{-2006, "INVALID_LEN"},   ErrorRow{-2007, "TCPNO_DELAY"},   ErrorRow{-2008, "CONNECT_FAIL"},
    ErrorRow{-2009, "NON_BLOCKING"},  ErrorRow{-2010, "CLIENT_TYPE"},   ErrorRow{-2011, "SOCKET_FLAGS"},
    ErrorRow{-2012, "INVALID_BSON"},  ErrorRow{-2013, "REG_INIT"},      ErrorRow{-2014, "LISTEN_EXISTS"},
    ErrorRow{-2015, "CLIENT_EXISTS"}, ErrorRow{-2016, "NO_CLIENT"},     ErrorRow{-2017, "STARTED"},
    ErrorRow{-2018, "UNHEALTHY"},     ErrorRow{-2019, "NO_LISTENER"},   ErrorRow{-2020, "ERR_RECEIVE"},
    ErrorRow{-2021, "STARTING_LOOP"}, ErrorRow{-2022, "NUM_CLIENTS"},   ErrorRow{-2023, "BAD_PAYLOAD"},
    ErrorRow{-2024, "NO_EVENTLOOP"},  ErrorRow{-2025, "CREATE_CLIENT"}, ErrorRow{-2026, "NO_CALLBACK"},
    ErrorRow{-2027, "BAD_EPHM_PORT"}, ErrorRow{-2100, "GENERIC"},       ErrorRow{-2101, "EXCEPTION"},
};

constexpr const char* kMessageTypeKey = "msg_type";

struct TextKey {
  const char* key;
  std::string BusHeader::*text;
};
constexpr std::array kTextKeys = {
    TextKey{"__TypeId__", &BusHeader::type_id},
    TextKey{"amqp_correlationId", &BusHeader::correlation_id},
    TextKey{"amqp_replyTo", &BusHeader::reply_to},
    TextKey{"app_type", &BusHeader::app_type},
    TextKey{"app_id", &BusHeader::app_id},
    TextKey{"session-id", &BusHeader::session_id},
    TextKey{"amqp-message-id", &BusHeader::message_id},
    TextKey{"request_type", &BusHeader::request_type},
    TextKey{kMessageTypeKey, &BusHeader::msg_class},
};
constexpr const char* kVdrRequestKey = "vdr-request-id";

void TakeElement(const bson_iter_t& element, BusHeader* header) {
  const char* key = bson_iter_key(&element);
  if (BSON_ITER_HOLDS_UTF8(&element)) {
    for (const TextKey& row : kTextKeys) {
      if (std::strcmp(key, row.key) != 0) continue;
      uint32_t length = 0;
      const char* text = bson_iter_utf8(&element, &length);
      (header->*row.text).assign(text, length);
    }
  } else if (std::strcmp(key, kMessageTypeKey) == 0 && BSON_ITER_HOLDS_INT(&element)) {
    header->msg_type = bson_iter_as_int64(&element);
  } else if (std::strcmp(key, kVdrRequestKey) == 0 && BSON_ITER_HOLDS_INT(&element)) {
    header->vdr_request_id = bson_iter_as_int64(&element);
  }
}

char* Pointer(const std::optional<std::string>& text) {
  return text ? const_cast<char*>(text->c_str()) : nullptr;
}

std::optional<std::string> Text(const char* text) {
  return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

// The length that the header begins with; nothing when no document can have it.
std::optional<size_t> HeaderLength(const uint8_t* header) {
  const uint32_t length = static_cast<uint32_t>(header[0]) | static_cast<uint32_t>(header[1]) << 8 |
                          static_cast<uint32_t>(header[2]) << 16 | static_cast<uint32_t>(header[3]) << 24;
  if (length <= kLengthBytes || length > kMaxHeader) return std::nullopt;
  return length;
}

}  // namespace

const char* BusMessageTypeName(int32_t type) {
  const size_t index = static_cast<size_t>(type) - 1;
  return type >= 1 && index < kTypeNames.size() ? kTypeNames[index] : "UNKNOWN_RMQ_CLIENT_MESSAGE_TYPE";
}

const char* BusErrorName(int error) {
  for (const ErrorRow& row : kErrors) {
    if (row.error == error) return row.name;
  }
  return "UNKNOWN";
}

std::vector<uint8_t> BusHeader::Encode() const {
  bson_t document = BSON_INITIALIZER;
  for (const TextKey& row : kTextKeys) {
    const std::string& text = this->*row.text;
    if (!text.empty()) bson_append_utf8(&document, row.key, -1, text.data(), static_cast<int>(text.size()));
  }
  if (msg_type && msg_class.empty()) bson_append_int64(&document, kMessageTypeKey, -1, *msg_type);
  if (vdr_request_id) bson_append_int64(&document, kVdrRequestKey, -1, *vdr_request_id);
  const uint8_t* data = bson_get_data(&document);
  std::vector<uint8_t> bytes(data, data + document.len);
  bson_destroy(&document);
  return bytes;
}

std::optional<BusHeader> BusHeader::Decode(std::span<const uint8_t> bytes) {
  bson_t document;
  if (bytes.empty() || bytes.size() > kMaxHeader || !bson_init_static(&document, bytes.data(), bytes.size()))
    return std::nullopt;
  if (!bson_validate(&document, BSON_VALIDATE_UTF8, nullptr)) return std::nullopt;
  bson_iter_t element;
  if (!bson_iter_init(&element, &document)) return std::nullopt;
  BusHeader header;
  while (bson_iter_next(&element)) TakeElement(element, &header);
  // The check of the BSON library accepts some documents that are truncated.
  if (element.err_off != 0) return std::nullopt;
  for (const TextKey& row : kTextKeys) {
    if ((header.*row.text).find('\0') != std::string::npos) return std::nullopt;
  }
  return header;
}

std::optional<BusHeader> BusHeader::Of(const rmqClientMessage& message) {
  if (message.header == nullptr) return std::nullopt;
  const std::optional<size_t> length = HeaderLength(message.header);
  if (!length) return std::nullopt;
  return Decode({message.header, *length});
}

void VisitBusHeader(const rmqClientMessage& message,
                    const std::function<void(const BusHeaderElement&)>& visit) {
  const std::optional<size_t> length =
      message.header == nullptr ? std::nullopt : HeaderLength(message.header);
  bson_t document;
  bson_iter_t element;
  if (!length || !bson_init_static(&document, message.header, *length) ||
      !bson_validate(&document, BSON_VALIDATE_UTF8, nullptr) || !bson_iter_init(&element, &document)) {
    return;
  }
  while (bson_iter_next(&element)) {
    BusHeaderElement seen{static_cast<int>(bson_iter_type(&element)), bson_iter_key(&element), nullptr, {}};
    if (BSON_ITER_HOLDS_UTF8(&element)) seen.text = bson_iter_utf8(&element, nullptr);
    if (BSON_ITER_HOLDS_INT(&element)) seen.number = bson_iter_as_int64(&element);
    visit(seen);
  }
}

BusRecord::~BusRecord() { std::free(free_block_); }

BusRecord::BusRecord(BusRecord&& other) noexcept : BusRecord(other.type_) { *this = std::move(other); }

BusRecord& BusRecord::operator=(BusRecord&& other) noexcept {
  if (this == &other) return *this;
  type_ = other.type_;
  cookie_ = other.cookie_;
  mp_major_version_ = other.mp_major_version_;
  mp_minor_version_ = other.mp_minor_version_;
  app_type_ = std::move(other.app_type_);
  app_id_ = std::move(other.app_id_);
  routing_key_ = std::move(other.routing_key_);
  content_type_ = std::move(other.content_type_);
  header_ = std::move(other.header_);
  payload_ = std::move(other.payload_);
  std::free(std::exchange(free_block_, std::exchange(other.free_block_, nullptr)));
  return *this;
}

BusRecord& BusRecord::SetApp(std::string app_type, std::string app_id) {
  app_type_ = std::move(app_type);
  app_id_ = std::move(app_id);
  return *this;
}

BusRecord& BusRecord::SetCookie(int32_t cookie) {
  cookie_ = cookie;
  return *this;
}

BusRecord& BusRecord::SetManagerVersion(uint32_t major, uint32_t minor) {
  mp_major_version_ = major;
  mp_minor_version_ = minor;
  return *this;
}

BusRecord& BusRecord::SetHeader(const BusHeader& header) {
  header_ = header.Encode();
  return *this;
}

BusRecord& BusRecord::SetRoutingKey(std::string key) {
  routing_key_ = std::move(key);
  return *this;
}

BusRecord& BusRecord::SetContentType(std::string type) {
  content_type_ = std::move(type);
  return *this;
}

BusRecord& BusRecord::SetPayload(std::string payload) {
  payload_ = std::move(payload);
  return *this;
}

BusRecord& BusRecord::SetFreeBlock(void* block) {
  std::free(std::exchange(free_block_, block));
  return *this;
}

rmqClientMessage BusRecord::message() const {
  rmqClientMessage message{};
  message.msg_type = type_;
  message.app_type = Pointer(app_type_);
  message.app_id = Pointer(app_id_);
  message.cookie = cookie_;
  message.mp_major_version = mp_major_version_;
  message.mp_minor_version = mp_minor_version_;
  message.header = header_.empty() ? nullptr : const_cast<uint8_t*>(header_.data());
  message.routing_key = Pointer(routing_key_);
  message.content_type = Pointer(content_type_);
  message.payload_len = payload_.size();
  message.payload =
      payload_.empty() ? nullptr : reinterpret_cast<uint8_t*>(const_cast<char*>(payload_.data()));
  message.free_block = free_block_;
  return message;
}

BusRecord BusRecord::Copy(const rmqClientMessage& message) {
  BusRecord record(static_cast<BusMessageType>(message.msg_type));
  record.cookie_ = message.cookie;
  record.mp_major_version_ = message.mp_major_version;
  record.mp_minor_version_ = message.mp_minor_version;
  record.app_type_ = Text(message.app_type);
  record.app_id_ = Text(message.app_id);
  record.routing_key_ = Text(message.routing_key);
  record.content_type_ = Text(message.content_type);
  if (message.header != nullptr) {
    if (const std::optional<size_t> length = HeaderLength(message.header)) {
      record.header_.assign(message.header, message.header + *length);
    }
  }
  if (message.payload != nullptr) {
    record.payload_.assign(reinterpret_cast<const char*>(message.payload), message.payload_len);
  }
  return record;
}

}  // namespace zem
