#include "app/traceflow/traceflow_app.h"

#include <chrono>

#include "app/traceflow/message_dump.h"
#include "framework/dataplane/lcp_adapter.h"
#include "framework/log/log.h"
#include "framework/node/platform_info.h"
#include "mpaclient/proxy/transport_node.h"
#include "platform/core/uuid.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "proto/lcp/lcp.pb.h"

namespace zem::Tarvik {
namespace {

using orlane::zem::UuidMsg;
using orlane::zem::traceflow::TraceflowMsg;
using orlane::zem::traceflow::TraceflowPacketInRequestMsg;
using orlane::zem::traceflow::TraceflowPacketOutRequestStatusMsg;
using std::chrono::seconds;

constexpr LogSource kLog{"tarvik", "traceflow"};

constexpr const char* kName = "Traceflow";
constexpr const char* kStatusType = "com.orlane.zem.traceflow.Traceflow.TraceflowPacketOutRequestStatusMsg";
constexpr const char* kObservationType = "com.orlane.zem.traceflow.Traceflow.TraceflowPacketInRequestMsg";
constexpr const char* kRoutingKey = "com.orlane.zem.traceflow.Traceflow";
constexpr size_t kMostPending = 50;
constexpr auto kEvictPeriod = seconds(2);
constexpr auto kEvictAge = seconds(2);
constexpr int32_t kTimedOut = 5;
constexpr uint8_t kLcpMessageFrame = 1;

}  // namespace

TraceflowApp::TraceflowApp(AsioZemProvider& provider, boost::intrusive_ptr<LcpAdapter> lcp_adapter)
    : provider_(provider),
      lcp_adapter_(std::move(lcp_adapter)),
      response_map_(kMostPending),
      vertical_(provider, GetVertical(VerticalId::kTraceflow),
                {.intercept = [this](const VerticalRecord& record) {
                  Receive(record);
                  return true;
                }}) {}

TraceflowApp::~TraceflowApp() {
  if (evict_timer_) evict_timer_->Cancel();
}

void TraceflowApp::Start() {
  ZLOG_INFO("Traceflow App start!");
  vertical_.Register();
  Init();
  vertical_.Start();
}

// The proxy is not connected yet, so the node's id is unknown here; it is asked for at each use.
void TraceflowApp::Init() {
  const auto node_id = TransportNodeId();
  ZLOG_INFO("Traceflow App instance is instantiated with node type: %s, transport node UUID: %s",
            IsPublicCloudGateway() ? "PCG" : "Non PCG", node_id ? UuidText(*node_id).c_str() : "");
  if (lcp_adapter_ == nullptr) {
    ZLOG_ERROR("OPS00006", "Failed to init due to _lcpAdapter is NULL");
    return;
  }
  lcp_adapter_->RegisterHandler(TraceflowMsg::descriptor()->full_name(),
                                [weak = weak_from_this()](const google::protobuf::Message& message) {
                                  if (const auto self = weak.lock())
                                    self->DpPacketHandler(static_cast<const TraceflowMsg&>(message));
                                });
  evict_timer_ = provider_.timers().ScheduleRepeated(
      kEvictPeriod,
      [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->Evict();
      },
      TimerOptions::Default);
}

void TraceflowApp::Stop() {
  ZLOG_INFO("%s: Stop", kName);
  vertical_.Stop();
  if (evict_timer_) evict_timer_->Cancel();
}

void TraceflowApp::Receive(const VerticalRecord& record) {
  const char* const type = BusMessageTypeName(record.type());
  ZLOG_INFO("Got Message from manager Type: %s", type);
  if (record.raw.routing_key != nullptr) ZLOG_DEBUG("Routing Key %s", record.raw.routing_key);
  if (record.raw.content_type != nullptr) ZLOG_DEBUG("Content Type %s", record.raw.content_type);
  if (record.raw.payload != nullptr)
    ZLOG_DEBUG("Payload Len %lld", static_cast<long long>(record.raw.payload_len));
  if (record.type() != kRmqMpRpcRequest) {
    ZLOG_DEBUG("Message Type :%s is expected to not handle by Traceflow App.", type);
    return;
  }
  ZLOG_INFO("Received request from MP/SN");
  if (!Dispatch(record))
    ZLOG_ERROR("ERR_TRACEFLOW_RPC_RESPONSE_ERROR", "%s: Failed to dispatch the message", kName);
}

bool TraceflowApp::Dispatch(const VerticalRecord& record) {
  orlane::zem::lcp::LcpDpMsg message;
  message.set_version(1);
  auto& request = *message.mutable_traceflow()->mutable_packet_out_request();
  const std::string_view payload = record.payload();
  if (!request.ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
    ZLOG_ERROR("MPA00105", "Failed to parse traceflow msg from MPA msg payload");
    return false;
  }
  if (!InsertResponse(record, request.round_id())) {
    ZLOG_ERROR("ERR_TRACEFLOW_RPC_RESPONSE_ERROR", "Failed to insert rpc response in map");
    return false;
  }
  // This is the thread of all verticals: a link that takes no more may not hold it.
  if (lcp_adapter_ != nullptr && lcp_adapter_->TrySend(kLcpMessageFrame, message)) return true;
  ZLOG_TO(kLog, kLogError, "%s: Failed to send data to LCP", kName);
  return false;
}

bool TraceflowApp::InsertResponse(const VerticalRecord& record, const UuidMsg& round_id) {
  if (record.raw.header == nullptr) {
    ZLOG_WARN("There is no amqp headers in client message");
    return false;
  }
  using Added = decltype(response_map_)::Added;
  switch (response_map_.Add(UuidText(round_id),
                            {round_id, record.header.correlation_id, record.header.reply_to})) {
    case Added::kAdded:
      return true;
    case Added::kFull:
      ZLOG_WARN("Traceflow RPC response map is full");
      return false;
    case Added::kExists:
      ZLOG_INFO("Traceflow round UUID is already in response map");
  }
  return false;
}

void TraceflowApp::DpPacketHandler(const TraceflowMsg& message) {
  ZLOG_DEBUG("In TraceflowLcpAdapter::DpPacketHandler, and the dump message is: %s",
             DumpWithAddresses(message).c_str());
  if (message.has_packet_in_request()) {
    SendObservation(message.packet_in_request());
  } else if (message.has_packet_out_request_status()) {
    TakeStatus(message.packet_out_request_status());
  }
}

void TraceflowApp::TakeStatus(const TraceflowPacketOutRequestStatusMsg& status) {
  const std::string round = UuidText(status.round_id());
  const auto response = response_map_.Take(round);
  if (!response) {
    ZLOG_ERROR("OPS02002", "Traceflow round UUID: %s is not found in response map", round.c_str());
    return;
  }
  SendStatus(*response, status);
}

void TraceflowApp::Evict() {
  for (const PendingResponse& response : response_map_.TakeOlder(kEvictAge)) {
    TraceflowPacketOutRequestStatusMsg status;
    *status.mutable_round_id() = response.round_id;
    status.set_status(kTimedOut);
    SendStatus(response, status);
    ZLOG_INFO("Evict traceflow round %s", UuidText(response.round_id).c_str());
  }
}

void TraceflowApp::SendStatus(const PendingResponse& response,
                              const TraceflowPacketOutRequestStatusMsg& status) {
  std::string payload;
  if (!status.SerializeToString(&payload)) ZLOG_ERROR("OPS02003", "ERROR while serializing protobuf");
  const auto answer = vertical_.PrepareAs(kRmqClientRpcResponse, kStatusType, std::move(payload),
                                          response.correlation_id, response.reply_to);
  const int result = VerticalClient::ResultOf(vertical_.SendPrepared(answer));
  if (result != 0) {
    ZLOG_ERROR("MPA00103", "Error While Sending to MP %d \n", result);
  } else {
    ZLOG_INFO("Sent request status message to MP, round UUID: %s", UuidText(response.round_id).c_str());
  }
}

void TraceflowApp::SendObservation(const TraceflowPacketInRequestMsg& observation) {
  TraceflowPacketInRequestMsg message = observation;
  if (message.has_observation() && !message.observation().has_transport_node_id()) {
    if (const auto node_id = TransportNodeId())
      SetUuid(*node_id, message.mutable_observation()->mutable_transport_node_id());
  }
  SetUuid(RandomUuid(), message.mutable_packet_metadata()->mutable_message_id());
  std::string payload;
  if (!message.SerializeToString(&payload)) ZLOG_ERROR("OPS02003", "ERROR while serializing protobuf");
  auto outgoing = vertical_.PrepareAs(kRmqClientPublish, kObservationType, std::move(payload), "", "");
  outgoing.record.SetApp(kName, "unused").SetRoutingKey(kRoutingKey);
  int result = kBusNoSession;
  for (const auto& [aph, is_master] : vertical_.Aphs()) {
    result = VerticalClient::ResultOf(vertical_.SendPrepared(outgoing, aph));
    if (result != 0) ZLOG_ERROR("MPA00103", "Error while sending to APH %s", aph.c_str());
  }
  if (result == 0) {
    ZLOG_INFO("Sent observation to MP: %s", DumpWithAddresses(message).c_str());
  } else {
    ZLOG_ERROR("MPA00103", "Error while sending to MPA %d \n", result);
  }
}

}  // namespace zem::Tarvik
