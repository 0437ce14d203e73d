#include "app/zemda/delivery/communication_handler.h"

#include <array>
#include <utility>

#include "app/zemda/base/host_info.h"
#include "framework/log/log.h"
#include "mpaclient/bus/bus_record.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/thread.h"
#include "platform/core/uuid.h"
#include "proto/ida/ida.pb.h"

namespace ZemDa {
namespace {

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr int kCommandMessage = 2;
constexpr int kSyncRequest = 0;
constexpr size_t kMostLogged = 64 << 10;

constexpr const char* kReceivedTypes[] = {"com.orlane.zem.ida.IdaMessage", "com.orlane.zem.ida.IdaMsg"};

constexpr std::array kCommandNames = {"IDA_INVALID", "SYNC_INIT", "ACK", "HEARTBEAT", "SYNC_INIT_REQ"};
constexpr int kSyncInitRequest = 4;
constexpr std::array kMessageTypeNames = {"FULL_SYNC", "UPDATE", "COMMAND", "RESPONSE"};

bool CarriesPayload(int32_t type) {
  return type == zem::kRmqClientPayload || type == zem::kRmqMpRpcRequest || type == zem::kRmqMpRpcResponse;
}

}  // namespace

CommunicationHandler::CommunicationHandler(std::shared_ptr<DataSender> sender,
                                           std::shared_ptr<DataCollector> collector,
                                           std::unique_ptr<IManagerRoad> road)
    : sender_(std::move(sender)),
      collector_(std::move(collector)),
      road_(std::move(road)),
      ack_thread_([this] { AckTimedOut(); }),
      monitor_([this] { DSTimerTimeout(); }) {
  sender_->SetRoad(this);
}

CommunicationHandler::~CommunicationHandler() { Stop(); }

void CommunicationHandler::InitiateMPAClient() {
  static_cast<void>(HostInfo::Get());
  receive_thread_ = std::make_unique<zem::NativeThread>(zem::NativeThread::Options{.name = "DA:rx"},
                                                        [this] { ReceiveLoop(); });
  started_ = true;
  road_->Start([this](const rmqClientMessage& record) { OnRecord(record); });
  ZLOG_INFO("InitiateMPAClient completed.");
}

void CommunicationHandler::BeginStop() {
  const std::lock_guard sending(send_mutex_);
  stopping_ = true;
}

void CommunicationHandler::Stop() {
  stopping_ = true;
  if (!std::exchange(started_, false)) return;
  road_->Stop();
  inbox_->push(std::make_shared<InventoryRxMsg>(InventoryRxMsg{.type = zem::kRmqClientClose}));
  receive_thread_->Join();
  ack_thread_.End();
  monitor_.End();
}

// --- Sending.

void CommunicationHandler::SendCommand(int command, int message_type, bool ack_thread) {
  const int named = command == kSyncRequest ? kSyncInitRequest : command;
  ZLOG_INFO("Sending %s with ackThreadFlag : %d", kCommandNames[static_cast<size_t>(named)], ack_thread);
  IdaMsg message;
  message.set_message_type(message_type);
  message.set_command(command);
  SendMsg(message, ack_thread);
}

void CommunicationHandler::SendMsg(const IdaMsg& message, bool ack_thread) {
  if (ZLOG_WANTS(zem::kLogDebug)) {
    const bool small = message.ByteSizeLong() < kMostLogged;
    ZLOG_DEBUG("Message Sent to MP Node via MpaClient. %s",
               small ? message.ShortDebugString().c_str() : "(too long to be logged)");
  }
  std::string payload;
  if (!message.SerializeToString(&payload)) {
    ZLOG_ERROR("MPA20015", "Error occurred while serializing to protobuf.");
  }
  const std::lock_guard sending(send_mutex_);
  if (stopping_) return;
  const uint64_t arming = ack_thread ? ack_thread_.Arm() : 0;
  sender_->ResetIdle();
  const std::string id = zem::RandomUuidText();
  ZLOG_DEBUG("Generated Correlation Id is : %s", id.c_str());
  std::string previous;
  {
    // Before the send: a quick acknowledgement may be there before it returns.  Together with the state: the
    // acknowledgement of the message before may come twice, and must not free the sender from its wait for
    // this.
    const std::lock_guard lock(state_mutex_);
    if (ack_thread) sender_->SetState(DataSender::kWaiting);
    previous = std::exchange(last_correlation_id_, id);
    last_arming_ = arming;
    last_sent_was_data_ = message.message_type() != kCommandMessage;
  }
  ZLOG_DEBUG("Sending message with cookie id (%d)", road_->cookie());
  if (const int error = road_->Send(std::move(payload), id); error != 0) {
    ZLOG_ERROR("MPA20016", "Failed to send message to ZEM Manager. Error code : %d", error);
    const std::lock_guard lock(state_mutex_);
    last_correlation_id_ = previous;
  }
  monitor_.Restart();
}

// --- Receiving.

void CommunicationHandler::OnRecord(const rmqClientMessage& record) {
  auto received = std::make_shared<InventoryRxMsg>();
  received->type = record.msg_type;
  if (record.msg_type == zem::kRmqClientClose) {
    if (record.cookie != road_->cookie()) return;
  } else {
    const auto header = zem::BusHeader::Of(record).value_or(zem::BusHeader());
    if (!header.type_id.empty()) ZLOG_DEBUG("Found typeId of: %s", header.type_id.c_str());
    if (!header.correlation_id.empty())
      ZLOG_DEBUG("Found correlationId of: %s", header.correlation_id.c_str());
    ZLOG_INFO("Received %d message. TypeId %s, CorrelationId %s", record.msg_type, header.type_id.c_str(),
              header.correlation_id.c_str());
    const bool known = header.type_id == kReceivedTypes[0] || header.type_id == kReceivedTypes[1];
    if (CarriesPayload(record.msg_type) && known && record.payload != nullptr) {
      received->payload.assign(reinterpret_cast<const char*>(record.payload), record.payload_len);
    }
    received->correlation_id = header.correlation_id;
  }
  inbox_->push(std::move(received));
}

void CommunicationHandler::ReceiveLoop() {
  const zem::LoopThread loop("DA:rx", zem::LoopKind::kWorker);
  while (!stopping_) {
    const auto received = inbox_->remove();
    if (stopping_) break;
    const zem::LoopStep step("message of the manager");
    if (received->type == zem::kRmqClientRegistrationAck) {
      HandleRegistration();
    } else if (received->type == zem::kRmqClientClose) {
      HandleClose();
    } else if (CarriesPayload(received->type)) {
      HandlePayload(*received);
    }
  }
  ZLOG_INFO("Ending message processing thread.");
}

void CommunicationHandler::HandleRegistration() {
  ZLOG_INFO("Received CLIENT_REGISTRATION_ACK message.");
  if (!road_->IsConnected()) {
    ZLOG_WARN(
        "Connection to MPA was closed, current MPA cookieId is %d. Ignoring RMQ_CLIENT_REGISTRATION_ACK",
        road_->cookie());
    return;
  }
  collector_->SetBlocked(false);
  collector_->SetSyncInitRequested(true);
  ZLOG_INFO("Start Communication Handler.");
  SendCommand(kSyncRequest, kCommandMessage, true);
}

void CommunicationHandler::HandleClose() {
  ZLOG_INFO("Received CLIENT_CLOSE message. Disconnecting from MPA.");
  ZLOG_INFO("MPA Connection is reset");
  collector_->SetBlocked(true);
  if (ack_thread_.started()) ack_thread_.Disarm();
  ZLOG_INFO("Stop Communication Handler.");
}

void CommunicationHandler::HandlePayload(const InventoryRxMsg& received) {
  ZLOG_INFO("Processing Message");
  IdaMsg message;
  if (!message.ParseFromString(received.payload)) {
    ZLOG_ERROR("MPA20017", "Failed to parse IdaMsg");
    return;
  }
  if (message.message_type() != kCommandMessage) {
    const auto type = static_cast<size_t>(message.message_type());
    if (type >= kMessageTypeNames.size()) return;
    ZLOG_ERROR("MPA20018", "Communication Handler received %s. Should not ever receive these.",
               kMessageTypeNames[type]);
    return;
  }
  const auto command = static_cast<size_t>(message.command());
  if (command >= kCommandNames.size()) return;
  ZLOG_INFO("Handling Command %s", kCommandNames[command]);
  switch (command) {
    case orlane::zem::ida::SYNC_INIT:
      return HandleSyncInit();
    case orlane::zem::ida::ACK:
      return HandleAck(received.correlation_id);
    default:
      ZLOG_ERROR("MPA20018", "Communication Handler received %s. Should not ever receive these.",
                 kCommandNames[command]);
  }
}

void CommunicationHandler::Disarm() {
  if (ack_thread_.started()) {
    ack_thread_.Disarm();
  } else {
    ZLOG_WARN("Ack Timer thread is not started, so not trying to stop");
  }
}

void CommunicationHandler::HandleSyncInit() {
  ZLOG_INFO("Received SYNC_INIT from MP.");
  const std::lock_guard sending(send_mutex_);
  if (stopping_) return;
  Disarm();
  ZLOG_INFO("Starting DC and DS - Start");
  sender_->SetState(DataSender::kDoSyncInit);
  bool was_data = false;
  {
    const std::lock_guard lock(state_mutex_);
    was_data = last_sent_was_data_;
  }
  sender_->Start();
  if (was_data) collector_->SetSyncInitRequested(true);
  collector_->Start();
  ZLOG_INFO("Starting DC and DS - Complete");
}

void CommunicationHandler::HandleAck(const std::string& correlation_id) {
  if (sender_->state() == DataSender::kDoSyncInit) {
    ZLOG_INFO("Ignoring ACK as full sync in progress");
    return;
  }
  const std::lock_guard lock(state_mutex_);
  if (correlation_id.empty() || correlation_id != last_correlation_id_) {
    ZLOG_WARN(
        "Received ACK out of order from MP. Correlation Id received from MP is %s and last sent to MP is %s",
        correlation_id.c_str(), last_correlation_id_.c_str());
    return;
  }
  if (!last_sent_was_data_) {
    ZLOG_INFO("ACK received during waiting for SYNC_INIT, ignoring.");
    return;
  }
  ack_thread_.Disarm(last_arming_);
  ZLOG_DEBUG("Ack Timer thread re-intialized in ACK.");
  sender_->SetState(DataSender::kWaitingForData);
  ZLOG_INFO("Received ACK for sent data.");
}

// --- Silence.

void CommunicationHandler::RequestEverything() {
  sender_->SetState(DataSender::kWaiting);
  collector_->SetSyncInitRequested(true);
  SendCommand(kSyncRequest, kCommandMessage, false);
}

void CommunicationHandler::AckTimedOut() {
  ZLOG_WARN("Timeout as no communication from MP Node, Reset and send SYNC_INIT_REQ.");
  RequestEverything();
}

void CommunicationHandler::DSTimerTimeout() {
  ZLOG_WARN("DS has not sent any messag for %d seconds, Reset and send SYNC_INIT_REQ.",
            MessageMonitor::kSeconds);
  RequestEverything();
  ZLOG_INFO("DSTimerTimeout execution completed.");
}

}  // namespace ZemDa
