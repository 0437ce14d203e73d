#include "mpaclient/unified_messages.h"

#include <google/protobuf/message.h>

#include <optional>

#include "framework/log/log.h"
#include "mpaclient/unified_layout.h"
#include "mpaclient/verticals.h"
#include "platform/core/uuid.h"
#include "proto/messaging/appinit.pb.h"
#include "proto/messaging/messaging.pb.h"

namespace zem {
namespace {

using orlane::zem::messaging::RawPayloadMsg;

constexpr LogSource kLog{"mpa-client"};

constexpr const char* kFailedText = "AppInit Handshake failed!";

}  // namespace

std::string TrackingIdText(const orlane::zem::messaging::GenericUnifiedMsg& message) {
  return UuidText(message.cookies().tracking_id());
}

UnifiedMessages::UnifiedMessages(const Vertical& vertical)
    : vertical_(vertical), layout_(UnifiedLayout::Of(vertical)) {}

std::unique_ptr<google::protobuf::Message> UnifiedMessages::GetMpUnifiedMsg(
    const std::string& type_name) const {
  return layout_.NewMp(type_name);
}

google::protobuf::Message* UnifiedMessages::GetMsgPayload(Message* unified,
                                                          const std::string& type_name) const {
  return layout_.MutableMpMember(unified, type_name);
}

bool UnifiedMessages::BuildAppInitMsg(Message* message) const {
  auto* const init = dynamic_cast<orlane::zem::messaging::appinit::AppInitMsg*>(message);
  if (init == nullptr) return false;
  init->set_vertical(vertical_.name);
  return true;
}

bool UnifiedMessages::GetAppInitUnifiedMsg(GenericUnifiedMsg* out) const {
  const auto unified = GetMpUnifiedMsg(kAppInitType);
  if (!BuildAppInitMsg(GetMsgPayload(unified.get(), kAppInitType)) ||
      !unified->SerializeToString(out->mutable_payload())) {
    ZLOG_INFO("[%s] MpaClientAppSpecific::GetAppInitUnifiedMsg: Could not serialize to string.",
              vertical_.name);
    return false;
  }
  return true;
}

bool UnifiedMessages::BuildAppInitCfgAckMsg(GenericUnifiedMsg* answer, bool success) const {
  const auto unified = GetMpUnifiedMsg(kAppInitConfigAckType);
  auto* const ack = dynamic_cast<orlane::zem::messaging::appinit::AppInitConfigAckMsg*>(
      GetMsgPayload(unified.get(), kAppInitConfigAckType));
  if (ack == nullptr) return false;
  ack->set_success(success);
  if (!success) ack->set_text(kFailedText);
  return unified->SerializeToString(answer->mutable_payload());
}

bool UnifiedMessages::GetGenericUnifiedMsg(GenericUnifiedMsg* out, const rmqClientMessage& record,
                                           const std::string* correlation_id, std::string* type_out) const {
  const char* const name = vertical_.name;
  const BusHeader header = BusHeader::Of(record).value_or(BusHeader());
  const std::string& type = header.type_id;
  if (type.empty()) {
    ZLOG_INFO("[%s] MpaClientAppSpecific::GetGenericUnifiedMsg: Failed to get object type from bson", name);
    return false;
  }
  *type_out = type;
  const auto unified = GetMpUnifiedMsg(type);
  if (!unified) {
    ZLOG_WARN("[%s] MpaClientAppSpecific::GetGenericUnifiedMsg Unable to get MpUnifiedMsg", name);
    return false;
  }
  Message* const message = GetMsgPayload(unified.get(), type);
  if (message == nullptr) {
    ZLOG_INFO("[%s] MpaClientAppSpecific::GetGenericUnifiedMsg msg NULL for type %s", name, type.c_str());
    return false;
  }
  const size_t size = record.payload != nullptr ? record.payload_len : 0;
  if (auto* const raw = dynamic_cast<RawPayloadMsg*>(message)) {
    raw->set_payload(record.payload, size);
  } else if (size > INT32_MAX || !message->ParseFromArray(record.payload, static_cast<int>(size))) {
    ZLOG_INFO("[%s] MpaClientAppSpecific::GetGenericUnifiedMsg Failed to parse protobuf msg for type %s",
              name, type.c_str());
    return false;
  }
  if (!unified->SerializeToString(out->mutable_payload())) {
    ZLOG_INFO("[%s] MpaClientAppSpecific::GetGenericUnifiedMsg: Could not serialize to string.", name);
    return false;
  }
  std::optional<boost::uuids::uuid> tracking;
  if (correlation_id != nullptr) {
    out->mutable_ctrl_header()->set_correlation_id(*correlation_id);
    tracking = ParseUuid(*correlation_id);
  }
  // The sender has logged the message id, so the manager gets the same id.
  if (!tracking) tracking = ParseUuid(header.message_id);
  SetUuid(tracking ? *tracking : RandomUuid(), out->mutable_cookies()->mutable_tracking_id());
  return true;
}

}  // namespace zem
