#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace google::protobuf {
class Message;
}

namespace Ctxt {

struct CtxtMsg;

/// The payload types of the engine's messages, as they travel.
inline constexpr const char* kHealthStatusMsg = "com.orlane.zem.context.HealthStatusMsg";
inline constexpr const char* kHealthStatusAckMsg = "com.orlane.zem.context.HealthStatusAckMsg";
inline constexpr const char* kLoginLogoffEventMsg = "com.orlane.zem.context.idfw.LoginLogoffEventMsg";
inline constexpr const char* kLoginLogoffEventAckMsg = "com.orlane.zem.context.idfw.LoginLogoffEventAckMsg";
inline constexpr const char* kEventInfoMsg = "com.orlane.zem.context.ids.EventInfoMsg";
inline constexpr const char* kPcapInfoMsg = "orlane.zem.context.ids.PcapInfoMsg";

/// The bytes of the message's payload; nothing, after a log line, when there are none.
std::optional<std::string> SerializePayload(const CtxtMsg& message);

/// The object of the type that the manager has sent; null, after a log line, when the bytes are not one.
std::shared_ptr<google::protobuf::Message> DeserializePayload(const std::string& payload_type,
                                                              std::string_view bytes);

}  // namespace Ctxt
