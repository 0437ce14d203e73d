#include "app/alarmsprovider/link/provider_service.h"

#include <exception>
#include <string>
#include <utility>

#include "app/alarmsprovider/link/client_library_communicator.h"
#include "app/alarmsprovider/link/event_report_reader.h"
#include "app/alarmsprovider/link/limits.h"
#include "app/alarmsprovider/link/provider_host.h"
#include "framework/log/log.h"
#include "framework/node/platform_info.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

// What a response lacks; empty when it is complete.
std::string MissingIn(const ProviderService::SubClientResponseMsg& response) {
  std::string missing;
  if (response.source_id().empty()) missing += " Empty source-id.";
  if (response.correlation_id().empty()) missing += " Empty correlationId.";
  if (!response.has_msg_type()) missing += " Empty msg type.";
  return missing;
}

}  // namespace

ProviderService::ProviderService(QueueManager& events, std::shared_ptr<StatusSource> status_source,
                                 ProviderHost& host, ClientLibraryCommunicator& communicator)
    : events_(events), status_source_(std::move(status_source)), host_(host), communicator_(communicator) {}

void ProviderService::SourceSync(rpc::ServerContext& context, const SourceSyncRequest& request,
                                 rpc::CallHandle<Void> call) {
  ZLOG_INFO("Forward source sync request for client-id : %s", context.client_id().c_str());
  for (const std::string& id : request.source_id()) host_.AddSourceId(id);
  call.Finish(Void());
}

void ProviderService::Unused1(rpc::ServerContext&, const Void&, rpc::CallHandle<Void> call) {
  call.Close(rpc::AppStatus::APPLICATION_ERROR);
}

void ProviderService::HostData(rpc::ServerContext& context, const HostDataRequest& request,
                               rpc::CallHandle<HostDataResponse> call) {
  ZLOG_INFO("Sending SmartNicInfo to client-id : %s", context.client_id().c_str());
  if (!request.has_smartnic_ip()) ZLOG_WARN("No smartnic-ip in MonitoringHostDataRequestMsg");
  call.Finish(HostDataResponse());
}

void ProviderService::ProcessEventReport(rpc::ServerContext&, const EventReport& request,
                                         rpc::CallHandle<EventReportResponse> call) {
  const ReportOutcome outcome = QueueEvents(request, events_);
  if (outcome == ReportOutcome::kTooLarge) {
    call.Close(rpc::AppStatus::INVALID_ARGUMENT, "an id or a context is too long");
    return;
  }
  EventReportResponse response;
  response.set_result(outcome == ReportOutcome::kTaken);
  call.Finish(response);
}

std::unique_ptr<rpc::RequestObserver<StatusSource::SourceMsg>> ProviderService::RegisterStatusSource(
    rpc::ServerContext&, StatusSource::Call call) {
  return status_source_->Register(std::move(call));
}

void ProviderService::SubClientResponse(rpc::ServerContext& context, const SubClientResponseMsg& request,
                                        rpc::CallHandle<Void> call) {
  const std::string& client = context.client_id();
  if (const std::string missing = MissingIn(request); !missing.empty()) {
    ZLOG_INFO("Dropping message from client : %s with missing info. Reason:%s", client.c_str(),
              missing.c_str());
    call.Close(rpc::AppStatus::INVALID_ARGUMENT);
    return;
  }
  ZLOG_DEBUG("Received message type : %d from client : %s", static_cast<int>(request.msg_type()),
             client.c_str());
  try {
    communicator_.HandleResponse(request);
  } catch (const std::exception& error) {
    ZLOG_WARN("Error handling response msg from client: %s. %s", client.c_str(), error.what());
  }
  call.Finish(Void());
}

void ProviderService::Subscribe(rpc::ServerContext& context, const SubscribeRequest& request,
                                rpc::CallHandle<SubClientRequest> call) {
  const std::string client_id = context.client_id();
  const std::string& source_id = request.source_id();
  if (source_id.empty() || source_id.size() > kMaxIdBytes) {
    ZLOG_WARN("Subscribe request received without source-id.Rejecting. client-id : %s", client_id.c_str());
    call.Close(rpc::AppStatus::INVALID_ARGUMENT);
    return;
  }
  const auto client = communicator_.MakeSubscriber(source_id, call);
  context.SetOnClose([weak = weak_from_this(), gone = boost::weak_ptr<CppPythonClient>(client), client_id,
                      source_id](const rpc::Status& status) {
    ZLOG_INFO("Subscribed client disconnecting - client-id : %s, status : %d", client_id.c_str(),
              status.code());
    const auto alive = weak.lock();
    const auto ended = gone.lock();
    if (alive && ended) alive->communicator_.RemoveClient(source_id, ended);
  });
  if (!communicator_.AddClient(client, source_id)) {
    call.Close(rpc::AppStatus::APPLICATION_ERROR);
    return;
  }
  communicator_.FullSync(source_id, true);
}

void ProviderService::Unused2(rpc::ServerContext&, const Void&, rpc::CallHandle<Void> call) {
  call.Close(rpc::AppStatus::APPLICATION_ERROR);
}

void ProviderService::LeadershipChanged(rpc::ServerContext&, const LeadershipRequest& request,
                                        rpc::CallHandle<Void> call) {
  if (IsUnifiedAppliance()) {
    host_.HandleLeadershipChange(request);
  } else {
    ZLOG_WARN("Received unexpected LeadershipChangedRequest message");
  }
  call.Finish(Void());
}

}  // namespace zem::Tarvik
