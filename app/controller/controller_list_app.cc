#include "app/controller/controller_list_app.h"

#include "app/controller/controller_context.h"
#include "app/controller/controller_list_handler_task.h"
#include "framework/log/log.h"
#include "mpaclient/bus/bus_record.h"
#include "mpaclient/mpa_client.h"
#include "platform/core/uuid.h"

namespace zem::Tarvik {
namespace {

namespace config = orlane::zem::config;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kVertical = "ControllerMgmtVertical";
constexpr const char* kSecondName = "unused";
constexpr uint32_t kVersionField = 1;
constexpr uint16_t kTypeCode = 9002;
constexpr uint64_t kTimeoutUs = 30'000'000;
constexpr uint64_t kIntervalUs = 5'000'000;
constexpr const char* kListType = "com.orlane.zem.config.MpLcpMsg";
constexpr const char* kNoCorrelation = "EMPTY";

}  // namespace

ControllerListApp::ControllerListApp(AsioZemProvider& provider, Settings settings)
    : provider_(provider), settings_(std::move(settings)) {}

ControllerListApp::~ControllerListApp() = default;

std::shared_ptr<MpaClient> ControllerListApp::client() const { return MpaClient::Get(kVertical); }

void ControllerListApp::Start() {
  if (!settings_.enabled()) {
    ZLOG_INFO("[%s] ControllerListApp disabled...", __func__);
    return;
  }
  ZLOG_INFO("[%s] Starting ControllerListApp...", __func__);
  MpaClient::Register(
      provider_, [this](rmqClientMessage* message) { ControllerListAppRxCallback(*message); }, kVertical,
      kSecondName, kVersionField, kTypeCode, kTimeoutUs, kIntervalUs);
  if (const auto stub = client()) stub->Start(nullptr);
}

void ControllerListApp::Stop() {
  const auto stub = client();
  if (stub == nullptr) return;
  stub->Stop();
  MpaClient::Unregister(kVertical);
}

bool ControllerListApp::RequestControllerList(const std::string& correlation_id) {
  config::MpLcpMsg request;
  request.mutable_sync_request();
  ZLOG_INFO("[%s] sending controller list request message..\n", __func__);
  std::string message_id;
  if (!SendMsg(kListType, request.SerializeAsString(), correlation_id, &message_id)) return false;
  ZLOG_INFO("[%s] sent RequestControllerList.\n", __func__);
  return true;
}

bool ControllerListApp::SendMsg(const std::string& type, std::string_view data,
                                const std::string& correlation_id, std::string* message_id) {
  const auto stub = client();
  if (stub == nullptr || !stub->IsConnected()) {
    ZLOG_ERROR("41518", "[%s] Not connected to MPA, dropped message to MPA\n", __func__);
    return false;
  }
  if (type != kListType) {
    ZLOG_ERROR("00104", "[%s] Unsupported message type %s to MPA\n", __func__, type.c_str());
    return false;
  }
  BusHeader header;
  header.type_id = type;
  header.msg_class = kListType;
  header.message_id = RandomUuidText();
  header.correlation_id = correlation_id.empty() ? kNoCorrelation : correlation_id;
  BusRecord record(kRmqClientRpcRequest);
  record.SetApp(kVertical, kSecondName)
      .SetCookie(stub->cookie())
      .SetHeader(header)
      .SetContentType(kProtobufContent)
      .SetPayload(std::string(data));
  rmqClientMessage message = record.message();
  if (stub->SendMessage(&message) != 0) {
    ZLOG_ERROR("00103", "[%s] failed to send message (type:%s) to mpa\n", __func__, type.c_str());
    return false;
  }
  *message_id = header.message_id;
  ZLOG_INFO("[%s] sent a message (id:[%s] type:[%s]) to mpa\n", __func__, message_id->c_str(), type.c_str());
  return true;
}

void ControllerListApp::UpdateTnUuidInFile(const std::string& id) {
  controller::UpdateTnUuidInFile(settings_.context, id);
}

void ControllerListApp::ControllerListAppRxCallback(const rmqClientMessage& message) {
  ZLOG_INFO("[%s] Received Message from manager, message type [%d]\n", __func__, message.msg_type);
  switch (message.msg_type) {
    case kRmqClientClose: {
      const auto stub = client();
      const int32_t cookie = stub ? stub->cookie() : -1;
      if (message.cookie == cookie) {
        ZLOG_INFO("[%s] Got CLIENT CLOSE Message for cookie:[%d], disconnected from MPA\n", __func__, cookie);
      } else {
        ZLOG_ERROR("41516", "[%s] Message's cookieId [%d] does not match with [%d], ignored\n", __func__,
                   message.cookie, cookie);
      }
      return;
    }
    case kRmqClientRegistrationAck:
      ZLOG_INFO(
          "Received client registration ACK from MPA, sending/receiving messages is enabled using cookie "
          "[%d]",
          message.cookie);
      RequestControllerList("");
      return;
    case kRmqClientPayload:
    case kRmqMpRpcRequest:
    case kRmqMpRpcResponse:
    case kRmqClientRpcResponse:
    case kRmqMpPublish: {
      settings_.payload_seen(message);
      const BusHeader header = BusHeader::Of(message).value_or(BusHeader());
      ProcessReceiveMessages(header.session_id + ":" + header.message_id, header.type_id,
                             {reinterpret_cast<const char*>(message.payload),
                              message.payload == nullptr ? 0 : message.payload_len},
                             header.correlation_id, header.reply_to);
      return;
    }
    default: {
      std::string name = BusMessageTypeName(message.msg_type);
      if (name.rfind("UNKNOWN", 0) == 0) name += " " + std::to_string(message.msg_type);
      ZLOG_ERROR("41520",
                 "[%s] Unrecognized RMQ messageType [%s] from MPA. Disconnect from mpa due to unrecognized "
                 "message, cookieId [%d]",
                 __func__, name.c_str(), message.cookie);
    }
  }
}

void ControllerListApp::ProcessReceiveMessages(const std::string& key, const std::string& type,
                                               std::string_view payload, const std::string& correlation_id,
                                               const std::string& reply_to) {
  const int length = static_cast<int>(payload.size());
  ZLOG_INFO("[%s] msgId:[%s] typeId:[%s], msgLen:[%d], corrId:[%s], replyTo:[%s]\n", __func__, key.c_str(),
            type.c_str(), length, correlation_id.c_str(), reply_to.c_str());
  if (payload.empty()) {
    ZLOG_ERROR("41519", "[%s] NULL/empty payload of length [%d]\n", __func__, length);
    return;
  }
  if (type != kListType) {
    ZLOG_ERROR("41521", "[%s] Unsupported message type [%s] from MPA\n", __func__, type.c_str());
    return;
  }
  config::MpLcpMsg message;
  if (!message.ParseFromArray(payload.data(), length)) {
    ZLOG_ERROR("MPAERR_MSG_CONTROLLER_LIST_PARSE_FAIL", "[%s] Failed to parse ControllerList message\n",
               __func__);
    return;
  }
  ZLOG_INFO("[%s] Controller info message [%s]\n", __func__, message.ShortDebugString().c_str());
  // The manager sends the whole list again with each change.
  if (!settings_.context->takes_request()) return;
  settings_.context->add_task(std::make_unique<controller::ControllerListHandlerTask>(
      settings_.context, correlation_id, reply_to, std::move(message)));
}

}  // namespace zem::Tarvik
