#include "mpaclient/mpa_client_app_specific.h"

#include <google/protobuf/message.h>

#include "framework/log/log.h"
#include "mpaclient/calls/service_observer.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "mpaclient/unified_layout.h"
#include "platform/core/uuid.h"
#include "proto/messaging/appinit.pb.h"
#include "proto/messaging/messaging.pb.h"

namespace zem {
namespace {

using google::protobuf::Message;
using orlane::zem::messaging::RawPayloadMsg;

constexpr LogSource kLog{"mpa-client"};

bool IsPublish(const rmqClientMessage& record) {
  return record.msg_type == kRmqVsmPayload || record.msg_type == kRmqClientPublish;
}

const char* PublishText(bool publish) { return publish ? "Publish," : ""; }

// The record type of the answer to a record of type `request`; 0 when that type has no answer.
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
      app_type_(vertical.name),
      messages_(vertical),
      calls_(app_type_),
      sequence_calls_(app_type_),
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

int MpaClientAppSpecific::SendAppInitRequest(uint32_t sequence) {
  const auto owner = client();
  GenericUnifiedMsg message;
  if (!owner || !messages_.GetAppInitUnifiedMsg(&message)) return -1;
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
  last_sent_ = StateSent::kAck;
  SendStateToVertical(kRmqClientRegistrationAck, flag);
}

void MpaClientAppSpecific::SendCloseToServedVertical(int flag) {
  if (last_sent_ == StateSent::kAck) SendCloseToVertical(flag);
}

void MpaClientAppSpecific::SendCloseToVertical(int flag) {
  if (last_sent_.exchange(StateSent::kClose) == StateSent::kClose) return;
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
  const auto owner = client();
  if (!owner) return MpaClient::LogNoCallback(app_type_);
  rmqClientMessage message = record.message();
  owner->Deliver(&message);
}

int MpaClientAppSpecific::SendRequest(rmqClientMessage* record, const std::string& aph,
                                      MpaClient::SendFailure* why) {
  const char* const name = app_type_.c_str();
  const auto owner = client();
  *why = MpaClient::SendFailure::kRefused;
  if (!owner) return -1;
  std::string target = aph;
  if (target.empty() && record->routing_key != nullptr && UsesRoutingKeyAsAph()) target = record->routing_key;
  const bool publish = IsPublish(*record);
  const std::string id = HeaderOf(*record).correlation_id;
  GenericUnifiedMsg message;
  std::string type;
  if (!messages_.GetGenericUnifiedMsg(&message, *record, id.empty() ? nullptr : &id, &type)) return -1;
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
  const bool as_message = UsesRoutingKeyAsAph() && has_key;
  const std::string asker = aph.empty() && has_key ? record->routing_key : aph;
  if (auto call = calls_.Take(id)) {
    if (!call->handle && !call->ended) {
      ZLOG_INFO("[%s] MpaClientAppSpecific::RespondMsg null handle for corelationId: %s", name, id.c_str());
      return -1;
    }
    GenericUnifiedMsg message;
    std::string type;
    const bool built = messages_.GetGenericUnifiedMsg(&message, *record, &id, &type);
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
    // The answer counts as sent: another try cannot reach a call that has ended.
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

// The call has ended with its proxy, so the answer goes to the asking APH as a message of its own.
int MpaClientAppSpecific::RespondAsMessage(const rmqClientMessage& record, const std::string& correlation_id,
                                           const std::string& aph, MpaClient::SendFailure* why) {
  ZLOG_INFO("[%s] RespondMsg : Sending response as a request to APH (%s), corelationId (%s)",
            app_type_.c_str(), aph.c_str(), correlation_id.c_str());
  const auto owner = client();
  GenericUnifiedMsg message;
  std::string type;
  if (!owner || !messages_.GetGenericUnifiedMsg(&message, record,
                                                KeepAphForResponse() ? &correlation_id : nullptr, &type)) {
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
  TakeMpResponse(status, answer, observer);
  if (observer != nullptr && observer->sequence() != 0) {
    sequence_calls_.DeleteFromSeqToCallHandleMap(observer->sequence());
  }
}

void MpaClientAppSpecific::TakeMpResponse(const rpc::Status& status, const GenericUnifiedMsg& answer,
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
  const auto unified = messages_.layout().NewHost();
  if (!unified->ParseFromString(answer.payload())) {
    ZLOG_WARN("[%s] HandleMpResponse Failed to parse %s", name, vertical_.host_unified_class);
    if (observer->sequence() != 0) FinishInitHandshake(observer->sequence(), false);
    return;
  }
  ZLOG_DEBUG("[%s] Received %s in GenericUnifiedMsg", name, vertical_.host_unified_class);
  if (const Message* const config = messages_.layout().HostAppInitConfig(*unified)) {
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
    // The answer to an app-init request has no config in it: the request has failed and is repeated.
    FinishInitHandshake(observer->sequence(), false);
    return;
  }
  const Message* const message = messages_.layout().HostMember(*unified);
  if (message == nullptr) {
    ZLOG_INFO("%s::GetRequestMsg: %s has empty message",
              vertical_.host_class != nullptr ? vertical_.host_class : vertical_.client_class,
              messages_.layout().HostType(*unified).c_str());
    return;
  }
  BusHeader header = observer->response_header();
  header.type_id = messages_.layout().HostType(*unified);
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
