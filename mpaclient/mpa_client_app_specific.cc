#include "mpaclient/mpa_client_app_specific.h"

#include <google/protobuf/message.h>

#include "framework/log/log.h"
#include "mpaclient/service_observer.h"
#include "mpaclient/tn_proxy_client_common.h"
#include "platform/core/uuid.h"
#include "proto/messaging/appinit.pb.h"
#include "proto/messaging/messaging.pb.h"

namespace zem {
namespace {

using orlane::zem::messaging::RawPayloadMsg;

constexpr LogSource kLog{"mpa-client"};

constexpr Duration kStaleCall = std::chrono::seconds(300);
constexpr const char* kFailedText = "AppInit Handshake failed!";

bool IsPublish(const rmqClientMessage& record) {
  return record.msg_type == kRmqVsmPayload || record.msg_type == kRmqClientPublish;
}

const char* PublishText(bool publish) { return publish ? "Publish," : ""; }

std::string TrackingIdText(const MpaClient::GenericUnifiedMsg& message) {
  return UuidText(message.cookies().tracking_id());
}

// The type of the record in which an answer to a record of `request` travels; 0 when it cannot have one.
int32_t AnswerType(int32_t request) {
  switch (request) {
    case kRmqClientRpcRequest:
      return kRmqMpRpcResponse;
    case kRmqVsmPayload:
    case kRmqClientPublish:
      return kRmqClientPublish;
    case kRmqMpRpcRequest:
      return kRmqClientRpcResponse;
    default:
      return 0;
  }
}

// A header that is missing or malformed has no keys.
BusHeader HeaderOf(const rmqClientMessage& record) { return BusHeader::Of(record).value_or(BusHeader()); }

}  // namespace

MpaClientAppSpecific::MpaClientAppSpecific(const Vertical& vertical, std::shared_ptr<MpaClient> client)
    : vertical_(vertical),
      layout_(UnifiedLayout::Of(vertical)),
      app_type_(vertical.name),
      client_(std::move(client)) {}

MpaClientAppSpecific::~MpaClientAppSpecific() = default;

std::shared_ptr<MpaClient> MpaClientAppSpecific::client() const {
  std::lock_guard lock(client_mutex_);
  return client_;
}

void MpaClientAppSpecific::ReleaseClient() {
  std::shared_ptr<MpaClient> dropped;
  std::lock_guard lock(client_mutex_);
  dropped.swap(client_);
}

bool MpaClientAppSpecific::UsesRoutingKeyAsAph(const rmqClientMessage&) const {
  return vertical_.traits.routing_key_as_aph;
}

std::unique_ptr<google::protobuf::Message> MpaClientAppSpecific::GetMpUnifiedMsg(
    const std::string& type_name) const {
  return layout_.NewMp(type_name);
}

google::protobuf::Message* MpaClientAppSpecific::GetMsgPayload(Message* unified,
                                                               const std::string& type_name) const {
  return layout_.MutableMpMember(unified, type_name);
}

std::unique_ptr<ServiceObserver> MpaClientAppSpecific::GetRpcCallObserver(const rmqClientMessage* record,
                                                                          uint32_t sequence) {
  auto observer = std::make_unique<ServiceObserver>(weak_from_this(), vertical_.observer_class, sequence);
  if (sequence == 0 && (record == nullptr || !PopulateObserver(observer.get(), *record))) {
    ZLOG_INFO("[%s] %s::GetRpcCallObserver Failed to Fill in Observer Rmq msg", app_type_.c_str(),
              vertical_.client_class);
    return nullptr;
  }
  return observer;
}

std::unique_ptr<rpc::CallObserver<MpaClient::VoidMsg>> MpaClientAppSpecific::GetVoidMsgObserver() {
  return std::make_unique<VoidMsgObserver>(app_type_);
}

bool MpaClientAppSpecific::BuildAppInitMsg(Message* message) const {
  auto* const init = dynamic_cast<orlane::zem::messaging::appinit::AppInitMsg*>(message);
  if (init == nullptr) return false;
  init->set_vertical(app_type_);
  return true;
}

bool MpaClientAppSpecific::GetAppInitUnifiedMsg(GenericUnifiedMsg* out) const {
  const auto unified = GetMpUnifiedMsg(kAppInitType);
  if (!BuildAppInitMsg(GetMsgPayload(unified.get(), kAppInitType)) ||
      !unified->SerializeToString(out->mutable_payload())) {
    ZLOG_INFO("[%s] MpaClientAppSpecific::GetAppInitUnifiedMsg: Could not serialize to string.",
              app_type_.c_str());
    return false;
  }
  return true;
}

bool MpaClientAppSpecific::BuildAppInitCfgAckMsg(GenericUnifiedMsg* answer, bool success) const {
  const auto unified = GetMpUnifiedMsg(kAppInitConfigAckType);
  auto* const ack = dynamic_cast<orlane::zem::messaging::appinit::AppInitConfigAckMsg*>(
      GetMsgPayload(unified.get(), kAppInitConfigAckType));
  if (ack == nullptr) return false;
  ack->set_success(success);
  if (!success) ack->set_text(kFailedText);
  return unified->SerializeToString(answer->mutable_payload());
}

int MpaClientAppSpecific::SendAppInitRequest(uint32_t sequence) {
  const auto owner = client();
  GenericUnifiedMsg message;
  if (!owner || !GetAppInitUnifiedMsg(&message)) return -1;
  SetUuid(RandomUuid(), message.mutable_cookies()->mutable_tracking_id());
  auto observer = GetRpcCallObserver(nullptr, sequence);
  const int result = owner->RpcMsgHandler(message, "", observer.release(), sequence);
  ZLOG_INFO("[%s] AppInit request: seq (%d), Master APH, ret (%d), trackingIdStr (%s).", app_type_.c_str(),
            static_cast<int>(sequence), result, TrackingIdText(message).c_str());
  return result;
}

bool MpaClientAppSpecific::FinishInitHandshake(uint32_t sequence, bool success) {
  ZLOG_INFO("[%s] FinishInitHandshake Seq (%d) (%s)", app_type_.c_str(), static_cast<int>(sequence),
            success ? "Success" : "Failed");
  const auto owner = client();
  return owner && owner->CompleteAppInitHandshake(sequence, success);
}

void MpaClientAppSpecific::SendRegistrationAckToVertical(int flag) {
  told_ = Told::kAck;
  SendStateToVertical(kRmqClientRegistrationAck, flag);
}

void MpaClientAppSpecific::SendCloseToServedVertical(int flag) {
  if (told_ == Told::kAck) SendCloseToVertical(flag);
}

void MpaClientAppSpecific::SendCloseToVertical(int flag) {
  if (told_.exchange(Told::kClose) == Told::kClose) return;
  ZLOG_INFO("[%s] Send Close Msg to Vertical", app_type_.c_str());
  SendStateToVertical(kRmqClientClose, flag);
}

void MpaClientAppSpecific::SendStateToVertical(BusMessageType msg_type, int flag) {
  BusHeader header;
  header.msg_type = msg_type;
  header.app_type = app_type_;
  header.app_id = "zem";
  BusRecord record(msg_type);
  record.SetApp(app_type_, "").SetHeader(header);
  if (flag == 0) {
    const auto proxy = TnProxyClientCommon::getInstance();
    uint32_t major = 0;
    uint32_t minor = 0;
    if (proxy && proxy->GetMpVersion(&major, &minor)) {
      record.SetManagerVersion(major, minor);
      ZLOG_INFO(
          "[%s] MpaClientAppSpecific SendRegistrationAckToVertical mp_major_version is (%d) mp_minor_version "
          "is (%d)",
          app_type_.c_str(), static_cast<int>(major), static_cast<int>(minor));
    } else {
      ZLOG_INFO(
          "[%s] MpaClientAppSpecific SendRegistrationAckToVertical major and minor version numbers not yet "
          "received",
          app_type_.c_str());
    }
  }
  SendMsgToVertical(record, flag);
}

void MpaClientAppSpecific::SendMsgToVertical(const BusRecord& record, int) {
  rmqClientMessage message = record.message();
  MpaClient::Deliver(&message);
}

bool MpaClientAppSpecific::IsCorelationIdInCallHandleMap(const std::string& correlation_id) const {
  return calls_.Contains(correlation_id);
}

std::optional<uint64_t> MpaClientAppSpecific::AddToCallHandleMap(const std::string& correlation_id,
                                                                 CallHandleMap::Handle handle) {
  if (const auto number = calls_.Add(correlation_id, std::move(handle))) return number;
  ZLOG_INFO("[%s] MpaClientAppSpecific AddToCallHandleMap Handle with corelationId (%s) already present",
            app_type_.c_str(), correlation_id.c_str());
  return std::nullopt;
}

void MpaClientAppSpecific::CallEnded(const std::string& correlation_id, uint64_t number) {
  calls_.Ended(correlation_id, number);
}

void MpaClientAppSpecific::AddToSeqToCallHandleMap(uint32_t sequence, const CallHandleMap::Handle& handle) {
  std::lock_guard lock(sequence_mutex_);
  if (!sequences_.try_emplace(sequence, handle).second) {
    ZLOG_INFO("[%s] MpaClientAppSpecific AddToSeqCallHandleMap Handle with seq (%d) already present",
              app_type_.c_str(), static_cast<int>(sequence));
  }
}

CallHandleMap::Handle MpaClientAppSpecific::GetFromSeqToCallHandleMap(uint32_t sequence) {
  std::lock_guard lock(sequence_mutex_);
  const auto found = sequences_.find(sequence);
  if (found != sequences_.end()) return found->second;
  ZLOG_INFO(
      "[%s] MpaClientAppSpecific GetFromSeqToCallHandleMap: call_handle corresponding to seq %d not found",
      app_type_.c_str(), static_cast<int>(sequence));
  return {};
}

void MpaClientAppSpecific::DeleteFromSeqToCallHandleMap(uint32_t sequence) {
  CallHandleMap::Handle dropped;
  std::lock_guard lock(sequence_mutex_);
  const auto found = sequences_.find(sequence);
  if (found == sequences_.end()) return;
  dropped = std::move(found->second);
  sequences_.erase(found);
}

void MpaClientAppSpecific::PurgeCallHandleMap() { calls_.Clear(); }

void MpaClientAppSpecific::PurgeStaleCallHandles() {
  for (const std::string& correlation_id : calls_.TakeOlderThan(kStaleCall)) {
    ZLOG_INFO("[%s] MpaClientAppSpecific PurgeStaleCallHandles Removing call handle, corelationId (%s)",
              app_type_.c_str(), correlation_id.c_str());
  }
}

void MpaClientAppSpecific::SetLastCallStatus(const rpc::Status& status) {
  std::lock_guard lock(call_mutex_);
  last_call_status_ = status;
}

rpc::Status MpaClientAppSpecific::last_call_status() const {
  std::lock_guard lock(call_mutex_);
  return last_call_status_;
}

bool MpaClientAppSpecific::GetGenericUnifiedMsg(GenericUnifiedMsg* out, const rmqClientMessage& record,
                                                const std::string* correlation_id,
                                                std::string* type_out) const {
  const char* const name = app_type_.c_str();
  const BusHeader header = HeaderOf(record);
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
  // The id that the sender has logged is the one that the manager sees.
  if (!tracking) tracking = ParseUuid(header.message_id);
  SetUuid(tracking ? *tracking : RandomUuid(), out->mutable_cookies()->mutable_tracking_id());
  return true;
}

int MpaClientAppSpecific::SendRequest(rmqClientMessage* record, const std::string& aph,
                                      MpaClient::SendFailure* why) {
  const char* const name = app_type_.c_str();
  const auto owner = client();
  *why = MpaClient::SendFailure::kRefused;
  if (!owner) return -1;
  std::string target = aph;
  if (target.empty() && record->routing_key != nullptr && UsesRoutingKeyAsAph(*record))
    target = record->routing_key;
  const bool publish = IsPublish(*record);
  const std::string id = HeaderOf(*record).correlation_id;
  GenericUnifiedMsg message;
  std::string type;
  if (!GetGenericUnifiedMsg(&message, *record, id.empty() ? nullptr : &id, &type)) return -1;
  int result = -1;
  if (publish) {
    *why = MpaClient::SendFailure::kNoRoad;
    result = owner->MsgHandler(message, target, GetVoidMsgObserver().release());
  } else if (auto observer = GetRpcCallObserver(record, 0)) {
    *why = MpaClient::SendFailure::kNoRoad;
    result = owner->RpcMsgHandler(message, target, observer.release(), 0);
  }
  const std::string tracking = TrackingIdText(message);
  if (result == 0 && target.empty()) {
    ZLOG_INFO("[%s] SendRequest: To Master APH, %s type (%s) correlationId (%s) trackingIdStr (%s) Success.",
              name, PublishText(publish), type.c_str(), id.c_str(), tracking.c_str());
  } else if (result == 0) {
    ZLOG_INFO("[%s] SendRequest: To APH (%s), %s type (%s), correlationId (%s) trackingIdStr (%s) Success.",
              name, target.c_str(), PublishText(publish), type.c_str(), id.c_str(), tracking.c_str());
  } else if (target.empty()) {
    ZLOG_INFO(
        "[%s] SendRequest: Failed to send msg Master APH, %s type (%s), correlationId (%s), trackingIdStr "
        "(%s), ret "
        "(%d)",
        name, PublishText(publish), type.c_str(), id.c_str(), tracking.c_str(), result);
  } else {
    ZLOG_INFO(
        "[%s] SendRequest: Failed to send msg to APH (%s), %s type (%s), correlationId (%s), trackingIdStr "
        "(%s), ret "
        "(%d)",
        name, target.c_str(), PublishText(publish), type.c_str(), id.c_str(), tracking.c_str(), result);
  }
  return result;
}

int MpaClientAppSpecific::RespondMsg(rmqClientMessage* record, const std::string& aph,
                                     MpaClient::SendFailure* why) {
  const char* const name = app_type_.c_str();
  *why = MpaClient::SendFailure::kRefused;
  const std::string id = HeaderOf(*record).correlation_id;
  ZLOG_INFO("[%s] MpaClientAppSpecific::RespondMsg corelationId (%s)", name, id.c_str());
  const bool has_key = record->routing_key != nullptr && record->routing_key[0] != '\0';
  const bool as_message = vertical_.traits.routing_key_as_aph && has_key;
  const std::string asker = aph.empty() && has_key ? record->routing_key : aph;
  if (auto call = calls_.Take(id)) {
    if (!call->handle && !call->ended) {
      ZLOG_INFO("[%s] MpaClientAppSpecific::RespondMsg null handle for corelationId: %s", name, id.c_str());
      return -1;
    }
    GenericUnifiedMsg message;
    std::string type;
    const bool built = GetGenericUnifiedMsg(&message, *record, &id, &type);
    const std::string tracking = TrackingIdText(message);
    if (!built) {
      ZLOG_INFO("[%s] RespondMsg : Failed to send response with type (%s) corelationId (%s) trackingId (%s).",
                name, type.c_str(), id.c_str(), tracking.c_str());
      return -1;
    }
    const bool written = call->handle.Finish(message);
    ZLOG_INFO("[%s] RespondMsg : Sent response with type (%s) corelationId (%s) trackingId (%s)", name,
              type.c_str(), id.c_str(), tracking.c_str());
    if (written) return 0;
    // The answer counts as given, since to try again cannot bring the call back.
    ZLOG_INFO("[%s] RespondMsg : The call of corelationId (%s) had ended before its response", name,
              id.c_str());
    if (as_message) RespondAsMessage(*record, id, asker, why);
    return 0;
  }
  if (as_message) return RespondAsMessage(*record, id, asker, why);
  ZLOG_INFO("[%s] MpaClientAppSpecific::RespondMsg Invalid corealtionId (%s) and empty amqpRoutingKey", name,
            id.c_str());
  return -1;
}

// The call is gone with its proxy; the answer still finds its asker as a message of its own.
int MpaClientAppSpecific::RespondAsMessage(const rmqClientMessage& record, const std::string& correlation_id,
                                           const std::string& aph, MpaClient::SendFailure* why) {
  ZLOG_INFO("[%s] RespondMsg : Sending response as a request to APH (%s), corelationId (%s)",
            app_type_.c_str(), aph.c_str(), correlation_id.c_str());
  const auto owner = client();
  GenericUnifiedMsg message;
  std::string type;
  if (!owner ||
      !GetGenericUnifiedMsg(&message, record, KeepAphForResponse() ? &correlation_id : nullptr, &type)) {
    return -1;
  }
  *why = MpaClient::SendFailure::kNoRoad;
  return owner->MsgHandler(message, aph, GetVoidMsgObserver().release());
}

bool MpaClientAppSpecific::PopulateObserver(ServiceObserver* observer,
                                            const rmqClientMessage& request) const {
  const int32_t type = AnswerType(request.msg_type);
  if (type == 0) {
    ZLOG_INFO("[%s] MpaClientAppSpecific::PopulateObserverRmqMsg Unknown Message type: (%d)",
              app_type_.c_str(), static_cast<int>(request.msg_type));
    return false;
  }
  BusRecord response(static_cast<BusMessageType>(type));
  response.SetCookie(request.cookie).SetApp(app_type_, "unused");
  BusHeader header;
  if (request.header != nullptr) {
    header.correlation_id = HeaderOf(request).correlation_id;
    if (header.correlation_id.empty()) {
      ZLOG_WARN("[%s] MpaClientAppSpecific::PopulateObserverRmqMsg Failed to get Correlation ID",
                app_type_.c_str());
      return false;
    }
  }
  observer->PrepareResponse(std::move(response), std::move(header));
  return true;
}

void MpaClientAppSpecific::HandleMpResponse(const rpc::Status& status, const GenericUnifiedMsg& answer,
                                            ServiceObserver* observer) {
  const char* const name = app_type_.c_str();
  ZLOG_DEBUG("[%s] HandleMpResponse Begin", name);
  if (observer == nullptr) {
    ZLOG_INFO("[%s] HandleMpResponse Null observer", name);
    return;
  }
  if (!status.ok()) {
    if (observer->sequence() != 0) FinishInitHandshake(observer->sequence(), false);
    return;
  }
  const auto unified = layout_.NewHost();
  if (!unified->ParseFromString(answer.payload())) {
    ZLOG_WARN("[%s] HandleMpResponse Failed to parse %s", name, vertical_.host_unified_class);
    if (observer->sequence() != 0) FinishInitHandshake(observer->sequence(), false);
    return;
  }
  ZLOG_DEBUG("[%s] Received %s in GenericUnifiedMsg", name, vertical_.host_unified_class);
  if (const Message* const config = layout_.HostAppInitConfig(*unified)) {
    ZLOG_INFO("[%s] AppInit Response", name);
    if (FinishInitHandshake(observer->sequence(), true)) {
      SendRegistrationAckToVertical(0);
    } else {
      const auto& init = static_cast<const orlane::zem::messaging::appinit::AppInitConfigMsg&>(*config);
      ZLOG_DEBUG("[%s] AppInitCfg from: %s, Seq (%d)", name, init.sender().c_str(),
                 static_cast<int>(observer->sequence()));
    }
    return;
  }
  if (observer->sequence() != 0) {
    // An answer to the app-init request that is none: not served, so ask again.
    FinishInitHandshake(observer->sequence(), false);
    return;
  }
  const Message* const message = layout_.HostMember(*unified);
  if (message == nullptr) {
    ZLOG_INFO("%s::GetRequestMsg: %s has empty message",
              vertical_.host_class != nullptr ? vertical_.host_class : vertical_.client_class,
              layout_.HostType(*unified).c_str());
    return;
  }
  BusHeader header = observer->response_header();
  header.type_id = layout_.HostType(*unified);
  BusRecord& response = observer->response();
  std::string payload;
  if (const auto* const raw = dynamic_cast<const RawPayloadMsg*>(message)) {
    payload = raw->payload();
  } else if (!message->SerializeToString(&payload)) {
    ZLOG_WARN("[%s] HandleMpResponse Failed to serialize protobuf msg to array", name);
    return;
  }
  SendMsgToVertical(response.SetHeader(header).SetPayload(std::move(payload)), 0);
}

}  // namespace zem
