#include "app/controller/controller_list_app.h"

#include "app/controller/controller_context.h"
#include "app/controller/controller_list_handler_task.h"
#include "framework/log/log.h"

namespace zem::Tarvik {
namespace {

namespace config = orlane::zem::config;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kListType = "com.orlane.zem.config.MpLcpMsg";

}  // namespace

ControllerListApp::ControllerListApp(AsioZemProvider& provider, Settings settings)
    : settings_(std::move(settings)),
      vertical_(provider, GetVertical(VerticalId::kControllerMgmt),
                {.payload = [this](const VerticalRecord& record) { TakePayload(record); },
                 .opened = [this](uint32_t, uint32_t) { RequestControllerList(""); },
                 .closed = nullptr,
                 .intercept =
                     [](const VerticalRecord& record) {
                       ZLOG_INFO("[%s] Received Message from manager, message type [%d]\n",
                                 "ControllerListAppRxCallback", record.type());
                       return false;
                     }}) {}

ControllerListApp::~ControllerListApp() = default;

void ControllerListApp::Start() {
  if (!settings_.enabled()) {
    ZLOG_INFO("[%s] ControllerListApp disabled...", __func__);
    return;
  }
  ZLOG_INFO("[%s] Starting ControllerListApp...", __func__);
  vertical_.Start();
}

void ControllerListApp::Stop() { vertical_.Stop(); }

bool ControllerListApp::RequestControllerList(const std::string& correlation_id) {
  config::MpLcpMsg request;
  request.mutable_sync_request();
  ZLOG_INFO("[%s] sending controller list request message..\n", __func__);
  std::string message_id;
  if (!SendMsg(kListType, request.SerializeAsString(), correlation_id, &message_id)) return false;
  ZLOG_INFO("[%s] sent RequestControllerList.\n", __func__);
  return true;
}

bool ControllerListApp::SendMsg(const std::string& type, std::string data, const std::string& correlation_id,
                                std::string* message_id) {
  auto sent = vertical_.Send(type, std::move(data), correlation_id, "");
  if (!sent) return false;
  *message_id = std::move(*sent);
  ZLOG_INFO("[%s] sent a message (id:[%s] type:[%s]) to mpa\n", __func__, message_id->c_str(), type.c_str());
  return true;
}

void ControllerListApp::UpdateTnUuidInFile(const std::string& id) {
  controller::UpdateTnUuidInFile(settings_.context, id);
}

void ControllerListApp::TakePayload(const VerticalRecord& record) {
  settings_.payload_seen(record);
  const BusHeader& header = record.header;
  ProcessReceiveMessages(header.session_id + ":" + header.message_id, header.type_id, record.payload(),
                         header.correlation_id, header.reply_to);
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
