#include "app/alarmsprovider/service/alarms_provider.h"

#include <boost/algorithm/string/join.hpp>
#include <set>
#include <utility>
#include <vector>

#include "app/alarmsprovider/events/queue_manager.h"
#include "app/alarmsprovider/link/client_lib_msg_ctx.h"
#include "app/alarmsprovider/link/client_library_communicator.h"
#include "app/alarmsprovider/service/collector_reset.h"
#include "app/alarmsprovider/service/source_sync.h"
#include "app/alarmsprovider/status/status_queue_manager.h"
#include "framework/cli/json_writer.h"
#include "framework/log/log.h"
#include "framework/node/platform_info.h"
#include "mpaclient/bus/bus_record.h"
#include "platform/core/uuid.h"
#include "proto/monitoring/monitoring.pb.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

constexpr uint32_t kNodesWithStore =
    kNodeQub | kNodeKvm | kNodeBareMetalServer | kNodeBareMetalContainer;  // 0x1803
constexpr const char* kCollectorType = "com.orlane.zem.monitoring.CollectorMpMsg";

using orlane::zem::monitoring::CollectorHostMsg;
using orlane::zem::monitoring::CollectorMpMsg;
using orlane::zem::monitoring::LeadershipChangedRequestMsg;
using orlane::zem::monitoring::MonitoringSyncRequestMsg;

// Which answer a record is, or why it is none.  Returns false for a record that is done with.
bool LogRecordType(const rmqClientMessage& record) {
  ZLOG_DEBUG("Got Message type [%d] from Collector", record.msg_type);
  switch (record.msg_type) {
    case kRmqMpRpcRequest:
      ZLOG_INFO("Received RPC request from MP");
      return true;
    case kRmqMpRpcResponse:
      ZLOG_INFO("Received RPC response from MP");
      return true;
    case kRmqClientClose:
      ZLOG_INFO("Received client close");
      return false;
    default:
      ZLOG_INFO("Unrecognized messageType [%d] from MPA", record.msg_type);
      return false;
  }
}

bool IsComplete(const MonitoringSyncRequestMsg& request) {
  return request.has_feature_id() && request.has_event_type_id() && request.has_entity_id() &&
         request.has_source_id();
}

}  // namespace

AlarmsProvider::AlarmsProvider(AsioZemProvider& provider,
                               std::shared_ptr<covedb::CoveDbClientInterface> store, Files files)
    : node_ids_(std::move(files.ids)),
      watches_store_(store != nullptr && ((GetNodeType() & kNodesWithStore) != 0 || IsEdgeOrPcg())),
      vertical_(provider, GetVertical(VerticalId::kAlarmsProvider),
                {.intercept = [this](const VerticalRecord& record) { return Receive(record); }}),
      event_queue_(std::make_shared<QueueManager>(provider, *this, node_ids_)),
      status_queue_(std::make_shared<StatusQueueManager>(provider, *this, node_ids_)),
      reset_(std::make_shared<CollectorReset>(provider, *this, node_ids_, [this] { OnResetDone(); })),
      source_sync_(std::make_shared<SourceSync>(provider, *this, node_ids_)),
      covedb_event_handler_(std::make_shared<CovedbEventHandler>(
          CovedbEventHandler::Settings{std::move(store), PollingConfigCache::ClientTypeOfNode(),
                                       std::move(files.config)},
          [this](const PollingTable& table, bool enabled) { OnConfigChanged(table, enabled); })),
      communicator_(std::make_shared<ClientLibraryCommunicator>(*event_queue_, *status_queue_, *this)) {}

AlarmsProvider::~AlarmsProvider() { Stop(); }

bool AlarmsProvider::Start() {
  ZLOG_INFO("Starting Alarms Provider");
  started_ = true;
  vertical_.Start();
  if (!communicator_->Start()) return false;
  if (watches_store_) covedb_event_handler_->Start();
  reset_->Start();
  ZLOG_INFO("Alarms Provider Started");
  return true;
}

void AlarmsProvider::Stop() {
  if (!std::exchange(started_, false)) return;
  if (watches_store_) covedb_event_handler_->Stop();
  communicator_->Stop();
  reset_->Stop();
  source_sync_->Stop();
  event_queue_->Stop();
  status_queue_->Stop();
  vertical_.Stop();
  // A request of the collector that was being handled may have started the queue again.
  event_queue_->Stop();
  ZLOG_DEBUG("Alarms Provider Stopped");
}

// --- The channel to the collector.

bool AlarmsProvider::SendToCollector(const CollectorMpMsg& message, const std::string& correlation_id,
                                     int32_t bus_type) {
  std::string bytes;
  if (!message.SerializeToString(&bytes)) {
    ZLOG_ERROR("OPS60003", "Could not serialize msg %s", message.ShortDebugString().c_str());
    return false;
  }
  ZLOG_DEBUG("Sending message (type:%s, len:%d)\n", kCollectorType, static_cast<int>(bytes.size()));
  const VerticalClient::Outgoing record = vertical_.PrepareAs(
      static_cast<BusMessageType>(bus_type), kCollectorType, std::move(bytes), correlation_id, "");
  if (vertical_.SendPrepared(record) != VerticalClient::Sent::kSent) {
    ZLOG_DEBUG("failed to send message (type:%s) to mpa\n", kCollectorType);
    return false;
  }
  ZLOG_DEBUG("sent a message (type:%s) to mpa\n", kCollectorType);
  return true;
}

// Always true: the vertical's client has nothing more to do with a record.
bool AlarmsProvider::Receive(const VerticalRecord& record) {
  if (!LogRecordType(record.raw)) return true;
  if (record.raw.routing_key != nullptr) ZLOG_DEBUG("Routing key: %s", record.raw.routing_key);
  if (record.raw.content_type != nullptr) ZLOG_DEBUG("Content type: %s", record.raw.content_type);
  const std::string_view payload = record.payload();
  if (payload.empty()) {
    ZLOG_INFO("Empty payload");
    return true;
  }
  ZLOG_DEBUG("Payload len: %lld", static_cast<long long>(payload.size()));
  CollectorHostMsg message;
  if (!message.ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
    ZLOG_ERROR("00105", "Failed to parse MPA message payload");
    return true;
  }
  HandleCollectorMsg(record.header.correlation_id, message);
  return true;
}

void AlarmsProvider::HandleCollectorMsg(const std::string& correlation_id, const CollectorHostMsg& message) {
  ZLOG_DEBUG("Received msg: %s", message.ShortDebugString().c_str());
  if (!message.has_msg_type()) {
    ZLOG_WARN("Received a message without msg_type set. Dropping.");
    return;
  }
  switch (message.msg_type()) {
    case CollectorHostType::kFullSync:
      ZLOG_INFO("Got FullSync req from alarms collector");
      return HandleFullSync(correlation_id);
    case CollectorHostType::kSync:
      ZLOG_INFO("Got Sync req from alarms collector");
      return HandleSync(correlation_id, message.sync_request());
    case CollectorHostType::kResetResponse:
      ZLOG_INFO("Got Reset response from alarms collector");
      return reset_->HandleResponse(correlation_id, message.reset_response().result());
    case CollectorHostType::kSourceSyncResponse:
      ZLOG_INFO("Got Source Sync rsp from alarms collector");
      return source_sync_->HandleResponse(correlation_id, message.source_sync_response().result());
    case CollectorHostType::kStatusFullSync:
      ZLOG_INFO("Got StatusFullSync req from collector");
      return HandleStatusFullSync(correlation_id);
    case CollectorHostType::kLeadershipChangedResponse:
      ZLOG_INFO("Got Leadership Changed rsp from collector");
      return;
    default:
      ZLOG_ERROR("00105", "Got invalid msg from alarms collector");
  }
}

// --- What the collector asks for.

void AlarmsProvider::RestartEventQueue() {
  event_queue_->Stop();
  event_queue_->Reset();
  event_queue_->Start();
}

void AlarmsProvider::OnResetDone() {
  RestartEventQueue();
  std::set<std::string> connected;
  communicator_->CollectSourceIds(&connected);
  for (const std::string& id : connected) source_sync_->AddSourceId(id);
  source_sync_->Start();
}

void AlarmsProvider::HandleFullSync(const std::string& correlation_id) {
  const auto context = std::make_shared<FullSyncCtx>(correlation_id, [this](const FullSyncCtx& done) {
    CollectorMpMsg reply;
    reply.set_msg_type(CollectorMpType::kFullSyncResponse);
    reply.mutable_full_sync_response()->set_result(done.result());
    (void)SendToCollector(reply, done.correlation_id(), kRmqClientRpcResponse);
  });
  RestartEventQueue();
  communicator_->FullSyncAll(context);
}

void AlarmsProvider::HandleSync(const std::string& correlation_id, const MonitoringSyncRequestMsg& request) {
  ZLOG_INFO("Sync Req for source-id: %s, feature-id: %u, event-type-id: %u, entity_id: %s",
            request.source_id().c_str(), request.feature_id(), request.event_type_id(),
            UuidText(request.entity_id()).c_str());
  const auto context = std::make_shared<SyncCtx>(
      correlation_id,
      SyncCtx::Instance{request.source_id(), request.feature_id(), request.event_type_id(),
                        request.entity_id()},
      // A client may answer when the provider is being stopped.
      [weak = weak_from_this()](const SyncCtx& done) {
        const auto alive = weak.lock();
        if (alive == nullptr) return;
        CollectorMpMsg reply;
        reply.set_msg_type(CollectorMpType::kSyncResponse);
        auto* const response = reply.mutable_sync_response();
        if (done.hasResult()) {
          response->set_status(done.status());
          if (!done.context().empty()) response->set_context(done.context());
        }
        (void)alive->SendToCollector(reply, done.correlation_id(), kRmqClientRpcResponse);
      });
  if (!IsComplete(request)) {
    ZLOG_WARN("Received incomplete Sync request from Alarms Collector. Dropping.");
    context->CompleteWithoutResult();
    return;
  }
  communicator_->Sync(context);
}

void AlarmsProvider::HandleStatusFullSync(const std::string& correlation_id) {
  status_queue_->Stop();
  status_queue_->Reset(true);
  CollectorMpMsg reply;
  reply.set_msg_type(CollectorMpType::kFullSyncResponse);
  reply.mutable_full_sync_response()->set_result(true);
  (void)SendToCollector(reply, correlation_id, kRmqClientRpcResponse);
  communicator_->TriggerStatusFullSync();
}

// --- What the link and the store's configuration ask for.

void AlarmsProvider::AddSourceId(const std::string& id) { source_sync_->AddSourceId(id); }

void AlarmsProvider::OnConfigChanged(const PollingTable& table, bool collection_enabled) {
  communicator_->SendConfig(table, collection_enabled);
}

PollingTable AlarmsProvider::GetPollingConfig() { return covedb_event_handler_->polling_config().table(); }

bool AlarmsProvider::IsCollectionEnabled() {
  return covedb_event_handler_->polling_config().collection_enabled();
}

void AlarmsProvider::HandleLeadershipChange(const LeadershipChangedRequestMsg& request) {
  if (!IsUnifiedAppliance()) {
    ZLOG_WARN("Received unexpected LeadershipChangedRequest message");
    return;
  }
  CollectorMpMsg message;
  message.set_msg_type(CollectorMpType::kLeadershipChanged);
  auto* const forwarded = message.mutable_leadership_changed_request();
  forwarded->set_source_id(request.source_id());
  forwarded->set_feature_id(request.feature_id());
  *forwarded->mutable_event_type_id() = request.event_type_id();
  SetNodeIds(node_ids_, forwarded);
  const std::string correlation_id = RandomUuidText();
  if (!SendToCollector(message, correlation_id, kRmqClientRpcRequest)) {
    ZLOG_INFO("Error sending leadership changed req for source-id: %s", request.source_id().c_str());
    return;
  }
  std::vector<std::string> event_types;
  for (const uint32_t type : request.event_type_id()) event_types.push_back(std::to_string(type));
  ZLOG_INFO(
      "Sent leadership changed req for correlation-id: %s, source-id: %s, feature-id: %s, eventtype-id: %s",
      correlation_id.c_str(), request.source_id().c_str(), std::to_string(request.feature_id()).c_str(),
      boost::algorithm::join(event_types, " ").c_str());
}

void AlarmsProvider::Describe(std::vector<PartState>* parts) const {
  PartState collector{"alarm collector", {}, {}};
  if (!reset_->done()) {
    collector.fault = "has not agreed to the conversation; events wait";
    collector.heals = "the daemon asks again at least every minute; the manager's collector has to answer";
  } else if (event_queue_->waiting().kept) {
    collector.fault = "a report could not be sent; events wait behind it";
    collector.heals = "it is tried again at every tick; the manager has to be reachable";
  }
  parts->push_back(std::move(collector));
}

std::vector<CliCommand> AlarmsProvider::Commands() {
  return {{"get/alarms", "", 0, 0, [this](const CliArguments&, CliReply reply) {
             const QueueManager::Waiting events = event_queue_->waiting();
             std::set<std::string> ids;
             communicator_->CollectSourceIds(&ids);
             JsonValue sources = JsonValue::Array();
             for (const std::string& id : ids) {
               JsonValue row = JsonValue::Object();
               row.Add("source", id);
               sources.Append(std::move(row));
             }
             JsonValue answer = JsonValue::Object();
             answer.Add("collector_agreed", reset_->done())
                 .Add("reports_sent", uint64_t{events.sent})
                 .Add("report_kept", events.kept)
                 .Add("events_waiting", uint64_t{events.elements})
                 .Add("status_waiting", uint64_t{status_queue_->waiting()})
                 .Add("sources", std::move(sources));
             reply.Ok(answer.Text());
           }}};
}

}  // namespace zem::Tarvik
