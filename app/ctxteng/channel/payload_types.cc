#include "app/ctxteng/channel/payload_types.h"

#include <array>
#include <new>

#include "app/ctxteng/base/ctxt_msg.h"
#include "framework/log/log.h"
#include "proto/context/idfw.pb.h"
#include "proto/context/ids.pb.h"
#include "proto/context/ouvi.pb.h"

namespace Ctxt {
namespace {

namespace context = orlane::zem::context;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

using MessagePtr = std::shared_ptr<google::protobuf::Message>;

template <class Message>
MessagePtr Make() {
  return std::make_shared<Message>();
}

struct Outbound {
  const char* type;
  const char* no_memory;
  const char* failure;
};
constexpr std::array kOutbound = {
    Outbound{kHealthStatusMsg, "CtxtMsg: Failed to allocate memory for HealthStatusMsg payload",
             "CtxtMsg: Error in serializing HealthStatusMsg"},
    Outbound{kLoginLogoffEventMsg, "CtxtMsg: Failed to allocate memory for LoginLogoffEventMsg payload",
             "CtxtMsg: Error in serializing LoginLogoffEventMsg"},
    Outbound{kEventInfoMsg, "CtxtMsg: Failed to allocate memory for IDS event info payload",
             "CtxtMsg: Failed to serialize IDS event info message"},
    Outbound{kPcapInfoMsg, "CtxtMsg: Failed to allocate memory for IDS pcap payload",
             "CtxtMsg: Failed to serialize IDS pcap message"},
};

struct Inbound {
  const char* type;
  MessagePtr (*make)();
  const char* failure;
};
constexpr std::array kInbound = {
    Inbound{kHealthStatusAckMsg, &Make<context::HealthStatusAckMsg>,
            "CtxtMsg: Error in deserializing to HealthStatusAckMsg"},
    Inbound{kLoginLogoffEventAckMsg, &Make<context::idfw::LoginLogoffEventAckMsg>,
            "CtxtMsg: Error in deserializing to LoginLogoffEventAckMsg"},
    Inbound{kEventInfoMsg, &Make<context::ids::EventInfoMsg>,
            "CtxtMsg: Error in deserializing to IdsEventInfoMsg"},
    Inbound{kPcapInfoMsg, &Make<context::ids::PcapInfoMsg>,
            "CtxtMsg: Error in deserializing to IdsEventInfoMsg"},
};

}  // namespace

std::optional<std::string> SerializePayload(const CtxtMsg& message) {
  for (const Outbound& row : kOutbound) {
    if (message.payloadType != row.type) continue;
    try {
      std::string bytes;
      if (message.payload != nullptr && message.payload->SerializeToString(&bytes)) return bytes;
      ZLOG_CTX_ERROR(152, "%s", row.failure);
    } catch (const std::bad_alloc&) {
      ZLOG_CTX_ERROR(1054, "%s", row.no_memory);
    }
    return std::nullopt;
  }
  ZLOG_ERROR("ERR_CTXT_INVALID_PAYLOAD_TYPE", "CtxtMsg: Unsupported protobuf message for serialization.");
  return std::nullopt;
}

MessagePtr DeserializePayload(const std::string& payload_type, std::string_view bytes) {
  ZLOG_DEBUG("CtxtMsg: DeserializePayload entered, payloadType: %s", payload_type.c_str());
  for (const Inbound& row : kInbound) {
    if (payload_type != row.type) continue;
    MessagePtr message = row.make();
    if (message->ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) return message;
    ZLOG_CTX_ERROR(154, "%s", row.failure);
    return nullptr;
  }
  ZLOG_WARN("CtxtMsg: Not able to deserialize bytes.");
  return nullptr;
}

}  // namespace Ctxt
