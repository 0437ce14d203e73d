#include "mpaclient/mpa_client_host_service.h"

#include <google/protobuf/message.h>

#include <array>
#include <string_view>

#include "framework/log/log.h"
#include "mpaclient/unified_layout.h"
#include "platform/core/uuid.h"
#include "proto/messaging/appinit.pb.h"
#include "proto/messaging/messaging.pb.h"

namespace zem {
namespace {

using orlane::zem::messaging::RawPayloadMsg;

constexpr LogSource kLog{"mpa-client"};

struct Renamed {
  std::string_view now;
  const char* before;
};
constexpr std::array kRenamed = {Renamed{"IdaMessage", "IdaMsg"}};

// The correlation id of a request that came without one.
std::string RandomId() { return RandomUuidText(); }

}  // namespace

MpaClientHostService::MpaClientHostService(std::shared_ptr<MpaClientAppSpecific> instance)
    : instance_(std::move(instance)), vertical_(instance_->vertical()) {}

MpaClientHostService::~MpaClientHostService() = default;

std::unique_ptr<google::protobuf::Message> MpaClientHostService::GetHostUnifiedMsg(
    const GenericUnifiedMsg& generic, std::string* type_out) const {
  auto unified = instance_->messages().layout().NewHost();
  if (!unified->ParseFromString(generic.payload())) return nullptr;
  std::string type = instance_->messages().layout().HostType(*unified);
  if (!type.empty()) *type_out = std::move(type);
  return unified;
}

const google::protobuf::Message* MpaClientHostService::GetRequestMsg(const Message& host_unified) const {
  if (host_unified.GetDescriptor() != vertical_.host_prototype().GetDescriptor()) {
    ZLOG_INFO("%s::GetRequestMsg: %s invalid type", vertical_.host_class, host_unified.GetTypeName().c_str());
    return nullptr;
  }
  const Message* const message = instance_->messages().layout().HostMember(host_unified);
  if (message == nullptr) {
    ZLOG_INFO("%s::GetRequestMsg: %s has empty message", vertical_.host_class,
              instance_->messages().layout().HostType(host_unified).c_str());
  }
  return message;
}

std::string MpaClientHostService::GetAppType(const Message&) const { return vertical_.name; }

std::shared_ptr<MpaClientAppSpecific> MpaClientHostService::GetClient(const std::string& app_id) const {
  return app_id == vertical_.name ? instance_ : nullptr;
}

std::string MpaClientHostService::ConvertObjTypeToOldName(const std::string& type_name) const {
  const size_t point = type_name.rfind('.');
  const size_t begin = point == std::string::npos ? 0 : point + 1;
  if (begin == type_name.size()) {
    ZLOG_WARN("[%s] MpaClientHostService::ConvertObjTypeToOldName: Malformed obj_type (%s).", vertical_.name,
              type_name.c_str());
    return {};
  }
  const std::string_view last = std::string_view(type_name).substr(begin);
  for (const Renamed& renamed : kRenamed) {
    if (last == renamed.now) return type_name.substr(0, begin) + renamed.before;
  }
  return {};
}

void MpaClientHostService::MpaMsgHandler(rpc::ServerContext& context, const GenericUnifiedMsg& generic,
                                         rpc::CallHandle<VoidMsg> handle) {
  ZLOG_DEBUG("[%s] MpaClientHostService::MpaMsgHandler", vertical_.name);
  std::string type;
  const auto unified = GetHostUnifiedMsg(generic, &type);
  Receive(context, {generic, unified.get(), type}, generic.ctrl_header().correlation_id(), nullptr);
  if (!handle.Finish(VoidMsg())) {
    ZLOG_DEBUG("[%s] MpaClientHostService::MpaMsgHandler: the call has ended already", vertical_.name);
  }
}

void MpaClientHostService::HandleRequest(rpc::ServerContext& context, const GenericUnifiedMsg& generic,
                                         rpc::CallHandle<GenericUnifiedMsg> handle) {
  std::string type;
  const auto unified = GetHostUnifiedMsg(generic, &type);
  if (!unified) ZLOG_WARN("%s::RpcMsgHandler Unable to get HostUnifiedMsg", vertical_.host_class);
  // A vertical without the handshake receives the message like any other.
  if (type != kAppInitConfigType || !instance_->messages().layout().AnswersAppInitConfig()) {
    MpaRpcMsgHandler(context, {generic, unified.get(), type}, handle);
    return;
  }
  ZLOG_INFO("%s::RpcMsgHandler Received AppInitConfigMsg", vertical_.host_class);
  const auto* const config =
      dynamic_cast<const orlane::zem::messaging::appinit::AppInitConfigMsg*>(GetRequestMsg(*unified));
  if (config != nullptr && config->has_sender()) {
    ZLOG_INFO("[%s] %s::RpcMsgHandler AppInitCfg from: %s", vertical_.name, vertical_.host_class,
              config->sender().c_str());
  }
  GenericUnifiedMsg answer;
  if (!instance_->messages().BuildAppInitCfgAckMsg(&answer, true)) {
    ZLOG_INFO("[%s] %s::RpcMsgHandler Could not serialize %s to string.", vertical_.name,
              vertical_.host_class, vertical_.mp_unified_class);
    return;
  }
  if (handle.Finish(answer))
    ZLOG_INFO("%s::RpcMsgHandler Responded with AppInitConfigAckMsg", vertical_.host_class);
}

void MpaClientHostService::MpaRpcMsgHandler(rpc::ServerContext& context, const Received& received,
                                            const rpc::CallHandle<GenericUnifiedMsg>& handle) {
  const GenericUnifiedMsg& generic = received.generic;
  std::string correlation_id;
  if (generic.has_ctrl_header()) {
    correlation_id = generic.ctrl_header().correlation_id();
  } else {
    correlation_id = RandomId();
    ZLOG_INFO("[%s] MpaClientHostService::MpaRpcMsgHandler: no CtrlHeader, corelationId (%s)", vertical_.name,
              correlation_id.c_str());
  }
  ZLOG_INFO("[%s] MpaClientHostService::MpaRpcMsgHandler: correlationId (%s)", vertical_.name,
            correlation_id.c_str());
  Receive(context, received, correlation_id, &handle);
}

void MpaClientHostService::Receive(rpc::ServerContext& context, const Received& received,
                                   const std::string& correlation_id,
                                   const rpc::CallHandle<GenericUnifiedMsg>* handle) {
  const bool publish = handle == nullptr;
  BusRecord record(publish ? kRmqMpPublish : kRmqMpRpcRequest);
  std::string app_type;
  if (!BuildRmqClientMessage(received, context, correlation_id, publish, &record, &app_type)) {
    ZLOG_INFO("[%s] MpaClientHostService::MsgHandler: corelationId (%s), %sFailed to Build Client Message ",
              vertical_.name, correlation_id.c_str(), publish ? "Publish, " : "");
    return;
  }
  const auto client = GetClient(app_type);
  if (!client) {
    ZLOG_WARN("[%s] MpaClientHostService::MsgHandler: corelationId (%s), app not found", vertical_.name,
              correlation_id.c_str());
    return;
  }
  // The check and the insertion are one step, so that of two requests with one id only one is accepted.
  if (!publish) {
    const auto number = client->calls().AddToCallHandleMap(correlation_id, *handle);
    if (!number) {
      ZLOG_WARN("MpaClientHostService::MsgHandler: [%s] corelationId (%s) already present in call handle map",
                vertical_.name, correlation_id.c_str());
      return;
    }
    context.SetOnClose([weak = std::weak_ptr(client), correlation_id, number = *number](const rpc::Status&) {
      if (const auto instance = weak.lock()) instance->calls().CallEnded(correlation_id, number);
    });
  }
  client->SendMsgToVertical(record, 0);
}

bool MpaClientHostService::BuildRmqClientMessage(const Received& received, const rpc::ServerContext& context,
                                                 const std::string& correlation_id, bool publish,
                                                 BusRecord* record, std::string* app_type_out) const {
  const char* const name = vertical_.name;
  const GenericUnifiedMsg& generic = received.generic;
  // For a secret message only the size is logged.
  if (ZLOG_WANTS(kLogDebug)) {
    ZLOG_DEBUG("[%s] MpaClientHostService::BuildRmqClientMessage:GenericUnifiedMsg :: %s", name,
               vertical_.traits.secret ? (std::to_string(generic.payload().size()) + " bytes").c_str()
                                       : generic.ShortDebugString().c_str());
  }
  const Message* const unified = received.unified;
  std::string type = received.type;
  if (unified == nullptr) {
    ZLOG_WARN("[%s] MpaClientHostService::BuildRmqClientMessage: Unable to get HostUnifiedMsg", name);
    return false;
  }
  if (ZLOG_WANTS(kLogDebug)) {
    ZLOG_DEBUG("[%s] MpaClientHostService::BuildRmqClientMessage HostUnifiedMsg :: %s", name,
               vertical_.traits.secret ? type.c_str() : unified->ShortDebugString().c_str());
  }
  *app_type_out = GetAppType(*unified);
  if (vertical_.traits.old_type_names) {
    std::string old_name = ConvertObjTypeToOldName(type);
    if (!old_name.empty()) {
      ZLOG_INFO("[%s] MpaClientHostService: converted obj_type (%s) -> (%s)", name, type.c_str(),
                old_name.c_str());
      type = std::move(old_name);
    }
  }
  const std::string& aph = context.client_id();
  ZLOG_DEBUG("[%s] MpaClientHostService::BuildRmqClientMessage: aph_uuid=(%s), corelationId=(%s)", name,
             aph.c_str(), correlation_id.c_str());
  BusHeader header;
  header.type_id = type;
  if (!publish) {
    header.correlation_id = correlation_id;
    header.reply_to = aph;
  }
  record->SetHeader(header).SetApp(*app_type_out, "");
  const Message* const message = GetRequestMsg(*unified);
  if (message == nullptr) {
    ZLOG_WARN("[%s] MpaClientHostService::BuildRmqClientMessage: fail to derive message", name);
    return false;
  }
  ZLOG_DEBUG("[%s] MpaClientHostService::BuildRmqClientMessage: hostMsg = %s, reqMsg = %s", name,
             unified->GetTypeName().c_str(), message->GetTypeName().c_str());
  if (const auto* const raw = dynamic_cast<const RawPayloadMsg*>(message)) {
    if (!raw->has_payload()) {
      ZLOG_WARN("MpaClientHostService::BuildRmqClientMessage: [%s] Invalid raw message", name);
      return false;
    }
    record->SetPayload(raw->payload());
  } else {
    std::string payload;
    if (!message->SerializeToString(&payload)) {
      ZLOG_INFO("MpaClientHostService::BuildRmqClientMessage: [%s] Unable to serialize message", name);
      return false;
    }
    record->SetPayload(std::move(payload));
  }
  if (!ZLOG_WANTS(kLogInfo)) return true;
  const std::string tracking = UuidText(generic.cookies().tracking_id());
  if (publish) {
    ZLOG_INFO(
        "[%s] MpaClientHostService Received: Publish msg, type (%s) corelationId (%s) trackingId (%s) from "
        "APH (%s)",
        name, type.c_str(), correlation_id.c_str(), tracking.c_str(), aph.c_str());
  } else {
    ZLOG_INFO(
        "[%s] MpaClientHostService Received: Msg type (%s)corelationId (%s) trackingId (%s) from APH (%s)",
        name, type.c_str(), correlation_id.c_str(), tracking.c_str(), aph.c_str());
  }
  return true;
}

}  // namespace zem
