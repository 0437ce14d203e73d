#include "app/pktcap/service/pktcap_app.h"

#include <algorithm>

#include "app/pktcap/service/capture_sessions.h"
#include "app/pktcap/service/session_start.h"
#include "app/pktcap/tools/knlctl_proxy.h"
#include "framework/log/log.h"
#include "framework/tasks/function_task.h"
#include "framework/tasks/task_thread.h"
#include "mpaclient/verticals.h"
#include "platform/core/uuid.h"
#include "platform/provider/provider.h"
#include "proto/packetcapture/packetcapture.pb.h"

namespace zem::Tarvik {
namespace {

using orlane::zem::packetcapture::PktCapHostToManagerMsg;
using orlane::zem::packetcapture::PktCapManagerToHostMsg;
using orlane::zem::packetcapture::PktCapOperationMsg;
using orlane::zem::packetcapture::PktCapQueryMsg;
using orlane::zem::packetcapture::PktCapRequestMsg;

constexpr LogSource kLog{"tarvik", "pktcap"};

constexpr const char* kName = "PacketCapture";
constexpr const char* kSentType = "orlane.zem.packetcapture.Pktcapcli$PktCapHostToManagerMsg";
constexpr const char* kReceiveCode = "MPA00104";
constexpr const char* kSendCode = "MPA00103";
constexpr const char* kToolName = "pktcap-uw";
constexpr size_t kLongestCorrelation = 127;
constexpr size_t kMostAside = 8;
constexpr uint32_t kHelp = 1;

enum OperationType : uint32_t { kQuerySession = 1, kStopSession = 2, kUpload = 3, kStartSession = 4 };

UploadTarget TargetOf(const PktCapOperationMsg& operation) {
  UploadTarget target;
  target.token = operation.upload_token();
  target.server = operation.https_repository_info().server();
  target.port = std::to_string(operation.https_repository_info().port());
  target.fingerprint = operation.https_repository_info().fingerprint();
  return target;
}

PktCapHostToManagerMsg MessageOf(const SessionStatus& status) {
  PktCapHostToManagerMsg message;
  auto* const report = message.mutable_status_report();
  report->set_session_id(status.session_id);
  report->set_status(static_cast<uint32_t>(status.state) + 1);
  if (status.state == SessionState::kFailed) {
    report->set_error_kind(SessionErrorKind(status.error));
    report->set_error_text(SessionErrorText(status.error));
  }
  if (status.needs_upload_info) report->set_needs_upload_info(true);
  return message;
}

}  // namespace

PktCapApp::PktCapApp(AsioZemProvider& provider, CaptureTools tools)
    : tools_(std::move(tools)),
      vertical_(provider, GetVertical(VerticalId::kPacketCapture),
                {.intercept = [this](const VerticalRecord& record) { return Receive(record); }}),
      sessions_(std::make_unique<CaptureSessions>(provider.metrics(), tools_,
                                                  [this](const SessionStatus& status) { Report(status); })) {}

PktCapApp::~PktCapApp() {
  if (running_) Stop();
  aside_stop_ = true;
  if (aside_ == nullptr) return;
  aside_->Stop();
  aside_->Join();
}

bool PktCapApp::Start() {
  host_ = CaptureParameters::Host::Own();
  host_.tools = tools_;
  aside_stop_ = false;
  proxy_ = std::make_unique<KnlctlProxy>(tools_);
  sessions_->Start();
  requests_ = std::make_unique<TaskThread>("pktcap:req", kMostRequests);
  requests_->Start();
  running_ = true;
  vertical_.Start();
  return true;
}

void PktCapApp::Stop() {
  ZLOG_INFO("%s: Stop\n", kName);
  aside_stop_ = true;
  running_ = false;
  // A request that is under way waits for the host.
  proxy_->RequestStop();
  requests_->Clear();
  requests_->Stop();
  sessions_->Stop();
  // Before the thread ends that started its helper, which would take the helper along.
  proxy_->Stop();
  requests_->Join();
  vertical_.Stop();
}

std::vector<SessionView> PktCapApp::List() const { return sessions_->List(); }

std::optional<SessionView> PktCapApp::Find(const std::string& id) const { return sessions_->Find(id); }

void PktCapApp::StartLocal(const std::string& id, const PktCapRequestMsg& request,
                           const std::string& destination, Started started) {
  if (!running_ || !requests_->TakesRequest())
    return started(running_ ? "Busy" : "Not running", std::nullopt);
  requests_->AddTask(std::make_unique<FunctionTask>([this, id, request, destination, started] {
                       StartSession(id, request, &destination, [&](const SessionStatus& status) {
                         if (status.error != SessionError::kNone) {
                           return started(SessionErrorText(status.error), std::nullopt);
                         }
                         started("", SessionView{id, request, destination, status.state});
                       });
                     }),
                     false);
}

bool PktCapApp::StopLocal(const std::string& id) { return sessions_->StopLocal(id); }

bool PktCapApp::RunAside(std::function<void()> work) {
  std::call_once(aside_started_, [this] {
    aside_ = std::make_unique<TaskThread>("pktcap:aside", kMostAside);
    aside_->Start();
  });
  if (!aside_->TakesRequest()) return false;
  aside_->AddTask(std::make_unique<FunctionTask>(std::move(work)), false);
  return true;
}

bool PktCapApp::Receive(const VerticalRecord& record) {
  LogRecord(record);
  if (record.type() != kRmqMpRpcRequest && record.type() != kRmqMpRpcResponse) {
    ZLOG_INFO("Rx: Message Type %d not processed by PacketCapture", record.type());
    return true;
  }
  const std::string_view payload = record.payload();
  const long length = static_cast<long>(payload.size());
  ZLOG_INFO("Rx: receive incoming message, length: %ld", length);
  PktCapManagerToHostMsg message;
  if (!message.ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
    ZLOG_ERROR(kReceiveCode, "Rx: Fail to parse packet capture CLI incoming message, length: %ld", length);
    return true;
  }
  if (ZLOG_WANTS(kLogDebug)) {
    PktCapManagerToHostMsg shown = message;
    // Whoever has the token may write the file.
    if (shown.operation().has_upload_token()) shown.mutable_operation()->set_upload_token("******");
    ZLOG_DEBUG("Rx: received incoming message, %s", shown.ShortDebugString().c_str());
  }
  const Request request{record.header.correlation_id, record.header.reply_to};
  if (!running_) return true;
  if (!requests_->TakesRequest()) {
    if (message.has_operation()) {
      Reply(request, SessionStatus::Failed(message.operation().session_id(), SessionError::kGeneral));
    }
    return true;
  }
  requests_->AddTask(std::make_unique<FunctionTask>([this, request, message = std::move(message)] {
                       if (message.has_operation()) Dispatch(request, message.operation());
                       if (message.has_query()) AnswerQuery(request, message.query());
                     }),
                     false);
  return true;
}

void PktCapApp::LogRecord(const VerticalRecord& record) const {
  ZLOG_DEBUG("Rx: Got Message in Function Callback Type %d", record.type());
  if (record.raw.routing_key != nullptr) ZLOG_DEBUG("Rx: Routing Key %s", record.raw.routing_key);
  if (record.raw.content_type != nullptr) ZLOG_DEBUG("Rx: Content Type %s", record.raw.content_type);
  ZLOG_DEBUG("Rx: Payload Len %d", static_cast<int>(record.payload().size()));
  // The bytes hold an upload's token.
  ZLOG_DEBUG("Rx: Payload %s", ("<" + std::to_string(record.payload().size()) + " bytes>").c_str());
  constexpr int kText = 2;
  for (const auto& [key, value] :
       {std::pair<const char*, const std::string&>{"__TypeId__", record.header.type_id},
        {"amqp_correlationId", record.header.correlation_id},
        {"amqp_replyTo", record.header.reply_to}}) {
    if (value.empty()) continue;
    ZLOG_DEBUG("Rx: Iterating HEADER BSON Type %d Key %s Value %s", kText, key, value.c_str());
  }
}

void PktCapApp::Dispatch(const Request& request, const PktCapOperationMsg& operation) {
  if (!operation.has_op_type()) {
    ZLOG_ERROR(kReceiveCode, "Field op_type not exist");
    return;
  }
  if (!operation.has_session_id()) {
    ZLOG_ERROR(kReceiveCode, "Field session_id not exist");
    return;
  }
  const std::string& id = operation.session_id();
  switch (operation.op_type()) {
    case kQuerySession:
      ZLOG_INFO("Process packet capture CLI query session %s", id.c_str());
      Reply(request, sessions_->Query(id));
      break;
    case kUpload:
      if (!operation.has_https_repository_info()) {
        ZLOG_ERROR(kReceiveCode, "Invalid UPLOAD with non httpsreposerver");
        break;
      }
      [[fallthrough]];
    case kStopSession:
      // The answer comes before the reports of what it sets off.
      sessions_->StopOrUpload(id, TargetOf(operation), [&](const SessionStatus& status) {
        ZLOG_INFO("Send packet capture CLI stop reply to mp session %s", id.c_str());
        Reply(request, status);
      });
      break;
    case kStartSession:
      if (!operation.has_request()) {
        ZLOG_ERROR(kReceiveCode, "Field request not exist");
        break;
      }
      StartSession(id, operation.request(), nullptr, [&](const SessionStatus& status) {
        ZLOG_INFO("Send packet capture CLI start reply to mp session %s", id.c_str());
        Reply(request, status);
      });
      break;
    default:
      ZLOG_ERROR(kReceiveCode, "Unknown operation type, %d", static_cast<int>(operation.op_type()));
  }
}

void PktCapApp::AnswerQuery(const Request& request, const PktCapQueryMsg& query) {
  if (!query.has_query_type()) {
    ZLOG_ERROR(kReceiveCode, "Field query_type not exist");
    return;
  }
  if (query.query_type() != kHelp) return;
  ZLOG_INFO("Process packet capture CLI query help");
  PktCapHostToManagerMsg message;
  message.mutable_query_reply()->set_text("");
  Send(Kind::kReply, request, message);
}

// `destination` is an operator's, null for the manager.
void PktCapApp::StartSession(const std::string& id, const PktCapRequestMsg& request,
                             const std::string* destination, const Answer& answer) {
  ZLOG_INFO("Starting packet capture session %s", id.c_str());
  PreparedSession prepared = PrepareSession(id, request, host_, sessions_->stop_flag());
  if (prepared.error != SessionError::kNone) return answer(SessionStatus::Failed(id, prepared.error));
  auto session = std::make_unique<CaptureSession>();
  session->id = id;
  session->request = request;
  session->exporter = std::move(prepared.exporter);
  session->file = std::move(prepared.file);
  session->local = destination != nullptr;
  if (destination != nullptr) session->destination = *destination;
  sessions_->Add(std::move(session), CountTools(), answer);
}

// The capturing tools that the host runs, of whomever; none when it does not say.
size_t PktCapApp::CountTools() {
  const auto worlds = proxy_->Worlds();
  if (!worlds) return 0;
  size_t count = 0;
  for (const HostWorld& world : *worlds) {
    if (world.world_name != kToolName) continue;
    ++count;
    ZLOG_INFO("Found active pktcap-uw process %lu, \"%s\"", static_cast<unsigned long>(world.world_id),
              world.command_line.c_str());
  }
  return count;
}

void PktCapApp::Reply(const Request& request, const SessionStatus& status) {
  Send(Kind::kReply, request, MessageOf(status));
}

void PktCapApp::Report(const SessionStatus& status) {
  ZLOG_INFO("Send report status %d to mp", static_cast<int>(status.state) + 1);
  Request context;
  context.correlation_id = (std::string(kName) + "-" + RandomUuidText()).substr(0, kLongestCorrelation);
  Send(Kind::kRequest, context, MessageOf(status));
}

void PktCapApp::Send(Kind kind, const Request& context, const PktCapHostToManagerMsg& message) {
  if (context.correlation_id.empty()) {
    ZLOG_ERROR(kSendCode, "Tx: No message header info found for %s",
               kind == Kind::kRequest ? "request" : "response");
    return;
  }
  std::string bytes;
  if (!message.SerializeToString(&bytes)) {
    ZLOG_ERROR(kSendCode, "Tx: Failed to Serialize Pb Message %s", message.ShortDebugString().c_str());
    return;
  }
  const auto outgoing =
      vertical_.PrepareAs(kind == Kind::kRequest ? kRmqClientRpcRequest : kRmqClientRpcResponse, kSentType,
                          std::move(bytes), context.correlation_id, context.reply_to);
  const VerticalClient::Sent sent = vertical_.SendPrepared(outgoing);
  if (sent != VerticalClient::Sent::kSent) {
    ZLOG_ERROR(kSendCode, "Tx: Failed to send message to mp %d", static_cast<int>(sent));
    return;
  }
  ZLOG_INFO("Tx: Sent message to mp");
}

}  // namespace zem::Tarvik
