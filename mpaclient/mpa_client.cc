#include "mpaclient/mpa_client.h"

#include <cinttypes>
#include <cstdlib>

#include "framework/log/log.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "mpaclient/verticals.h"
#include "platform/core/clock.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/provider.h"
#include "proto/messaging/messaging.pb.h"

namespace zem {
namespace {

constexpr LogSource kLog{"mpa-client"};

constexpr auto kSlowCallback = std::chrono::milliseconds(250);
constexpr size_t kMaxDumpedBytes = 4096;

BusConnection::Settings ConnectionSettings(const MpaClientArguments& arguments) {
  return {.app_type = arguments.name,
          .app_id = arguments.id,
          .client_type = arguments.client_type,
          .over_bus = arguments.port == MpaClient::kBusPort,
          .ack_timeout = arguments.ack_timeout,
          .retry_timeout = arguments.retry_timeout,
          .deliver = arguments.deliver};
}

void DumpPayload(const rmqClientMessage& message) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const size_t size = std::min<size_t>(message.payload_len, kMaxDumpedBytes);
  std::string text;
  text.reserve(size * 3);
  for (size_t i = 0; i < size; ++i) {
    text.push_back(kDigits[message.payload[i] >> 4]);
    text.push_back(kDigits[message.payload[i] & 0xf]);
    text.push_back(' ');
  }
  ZLOG_DEBUG("%s", text.c_str());
}

}  // namespace

MpaClient::MpaClient(MpaClientArguments arguments)
    : provider_(arguments.provider),
      app_type_(arguments.name),
      app_id_(arguments.id),
      proxy_client_(TnProxyClientCommon::getInstance()),
      connection_(std::make_shared<BusConnection>(provider_, ConnectionSettings(arguments), arguments.bus)),
      port_(arguments.port),
      receive_callback_(std::move(arguments.callback)),
      received_(provider_.metrics().frequency("rmq/msg/rx", "app=" + app_type_)),
      sent_(provider_.metrics().frequency("rmq/msg/tx", "app=" + app_type_)),
      send_failures_(provider_.metrics().counter("rmq/msg/tx_failed", "app=" + app_type_)),
      callback_time_(provider_.metrics().latency("rmq/msg/rx_time", "app=" + app_type_)) {}

MpaClient::~MpaClient() = default;

void MpaClient::Start(UuidCallback uuid_callback) {
  ZLOG_INFO("[%s] Starting MPA client thread...\n", app_type_.c_str());
  uuid_callback_ = std::move(uuid_callback);
  if (!registered_) return;
  if (port_ == kBusPort) {
    connection_->ConnectMpaStateTrans();
    return;
  }
  ZLOG_DEBUG("[%s] Calling RegisterWithTnProxyClient\n", app_type_.c_str());
  RegisterWithTnProxyClient();
}

void MpaClient::Stop() {
  if (port_ == kBusPort) connection_->End();
  HandleClose();
}

void MpaClient::HandleUnregister() {
  registered_ = false;
  connection_->Release();
  if (proxy_client_) proxy_client_->RemoveClient(app_type_);
  ReleaseAppSpecificInstance();
}

void MpaClient::HandleClose() { ZLOG_DEBUG("[%s] HandleClose", app_type_.c_str()); }

int MpaClient::SendMessage(rmqClientMessage* message) { return SendMessageTo(message, "", nullptr); }

int MpaClient::SendMessageTo(rmqClientMessage* message, const std::string& aph, SendFailure* why) {
  SendFailure failure = SendFailure::kNone;
  const bool over_bus = port_ == kBusPort && aph.empty();
  const int result = over_bus ? connection_->Send(message) : SendMsgViaTnProxy(message, aph, &failure);
  if (over_bus && result != 0) failure = SendFailure::kRefused;
  if (why != nullptr) *why = failure;
  if (result == 0) {
    sent_.Mark();
  } else {
    send_failures_.Add();
  }
  return result;
}

MpaClient::Figures MpaClient::figures() const {
  constexpr double kMost = 0.99;
  return {received_.count(),       sent_.count(),
          send_failures_.value(),  callback_time_.QuantileUs(kMost),
          callback_time_.max_us(), connection_->state_age()};
}

std::map<std::string, bool> MpaClient::Aphs() const {
  return proxy_client_ ? proxy_client_->aphs() : std::map<std::string, bool>();
}

void MpaClient::updateStubMap() { ZLOG_INFO("[%s] RPC Service Not Implemented.", app_type_.c_str()); }
void MpaClient::AppInitHandshake() { ZLOG_INFO("Not Implemented"); }
void MpaClient::CreateAppSpecificInstance(const std::shared_ptr<MpaClient>&) { ZLOG_INFO("Not Implemented"); }
void MpaClient::ReleaseAppSpecificInstance() { ZLOG_INFO("Not Implemented"); }
void MpaClient::RegisterWithTnProxyClient() { ZLOG_INFO("Not Implemented"); }
void MpaClient::CleanUpForStubs() { ZLOG_INFO("Not Implemented"); }

rpc::CallHandle<MpaClient::GenericUnifiedMsg> MpaClient::GetFromAppSpecificSeqToCallHandleMap(uint32_t) {
  ZLOG_INFO("Not Implemented");
  return {};
}

int MpaClient::SendMsgViaTnProxy(rmqClientMessage*, const std::string&, SendFailure* why) {
  *why = SendFailure::kRefused;
  ZLOG_INFO("Not Implemented");
  return -1;
}

int MpaClient::MsgHandler(const GenericUnifiedMsg&, const std::string&,
                          rpc::CallObserver<VoidMsg>* observer) {
  delete observer;
  ZLOG_INFO("Not Implemented");
  return -1;
}

int MpaClient::RpcMsgHandler(const GenericUnifiedMsg&, const std::string&,
                             rpc::CallObserver<GenericUnifiedMsg>* observer, uint32_t) {
  delete observer;
  ZLOG_INFO("Not Implemented");
  return -1;
}

bool MpaClient::CompleteAppInitHandshake(uint32_t, bool) {
  ZLOG_INFO("Not Implemented");
  return false;
}

void MpaClient::LogNoCallback(const std::string& app_type) {
  ZLOG_ERROR("00106", "No callback function for app type %s", app_type.c_str());
}

void MpaClient::Deliver(rmqClientMessage* message) {
  if (registered_) {
    HandleMessage(message);
  } else {
    LogNoCallback(app_type_);
  }
  std::free(message->free_block);
  message->free_block = nullptr;
}

void MpaClient::LogRecord(const rmqClientMessage& message) const {
  const char* const name = app_type_.c_str();
  ZLOG_INFO("[%s] Got Message in app_type:[%s]\n", name, message.app_type);
  if (!ZLOG_WANTS(kLogDebug)) return;
  ZLOG_DEBUG("[%s] Routing key [%s], content type [%s], payload length [%" PRIu64 "]\n", name,
             message.routing_key != nullptr ? message.routing_key : "",
             message.content_type != nullptr ? message.content_type : "",
             static_cast<uint64_t>(message.payload_len));
  const Vertical* const vertical = FindVertical(app_type_);
  const bool secret = vertical != nullptr && vertical->traits.secret;
  if (!secret && message.payload != nullptr) DumpPayload(message);
}

void MpaClient::HandleMessage(rmqClientMessage* message) {
  const char* const name = app_type_.c_str();
  ZLOG_DEBUG("[%s] Received Message from MPA [%d]\n", name, static_cast<int>(message->msg_type));
  received_.Mark();
  if (message->msg_type != kRmqClientClose) LogRecord(*message);
  switch (message->msg_type) {
    case kRmqClientRegistrationAck:
      ZLOG_INFO("Received client registration ACK from MPA, sending/receiving messages is enabled\n");
      connection_->TakeAck();
      break;
    case kRmqClientClose:
      if (!connection_->TakeClose(message->cookie)) return;
      break;
    case kRmqClientPayload:
    case kRmqMpRpcRequest:
    case kRmqMpRpcResponse:
    case kRmqClientRpcResponse:
    case kRmqMpPublish:
      break;
    default:
      ZLOG_ERROR(
          "00104",
          "[%s] Unrecognized RMQ messageType [%d] from MPA. Disconnect from mpa due to unrecognized message. "
          "CookieId :%d\n",
          name, static_cast<int>(message->msg_type), message->cookie);
      return;
  }
  if (!receive_callback_) return;
  const TimePoint begin = Clock::Process().Now();
  receive_callback_(message);
  const auto took = Clock::Process().Now() - begin;
  callback_time_.Record(took);
  if (took > kSlowCallback) {
    ZLOG_INFO("Vertical (%s) rx-callback took (%ld) msecs", name,
              static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()));
  }
}

}  // namespace zem
