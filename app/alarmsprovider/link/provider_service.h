#pragma once

#include <boost/enable_shared_from_this.hpp>
#include <memory>

#include "app/alarmsprovider/link/status_source.h"
#include "proto/monitoring/monitoring_services.rpc.h"

namespace zem::Tarvik {

class ClientLibraryCommunicator;
class QueueManager;

/// The service that alarm clients and the status source call.
///
/// Threads: the handlers run on the threads of the communicator's provider.
/// Ownership: the communicator outlives the server, which holds this service.
class ProviderService final : public orlane::zem::monitoring::MonitoringProviderService::Service,
                              public boost::enable_shared_from_this<ProviderService> {
 public:
  ProviderService(QueueManager& events, std::shared_ptr<StatusSource> status_source, ProviderHost& host,
                  ClientLibraryCommunicator& communicator);

  using SourceSyncRequest = orlane::zem::monitoring::MonitoringSourceSyncRequestMsg;
  using HostDataRequest = orlane::zem::monitoring::MonitoringHostDataRequestMsg;
  using HostDataResponse = orlane::zem::monitoring::MonitoringHostDataResponseMsg;
  using EventReport = orlane::zem::monitoring::MonitoringProcessEventReportRequestMsg;
  using EventReportResponse = orlane::zem::monitoring::MonitoringProcessEventReportResponseMsg;
  using SubClientRequest = orlane::zem::monitoring::MonitoringSubClientRequestMsg;
  using SubClientResponseMsg = orlane::zem::monitoring::MonitoringSubClientResponseMsg;
  using SubscribeRequest = orlane::zem::monitoring::MonitoringSubscribeRequestMsg;
  using LeadershipRequest = orlane::zem::monitoring::LeadershipChangedRequestMsg;
  using Void = orlane::zem::VoidMsg;

  void SourceSync(rpc::ServerContext& context, const SourceSyncRequest& request,
                  rpc::CallHandle<Void> call) override;
  void Unused1(rpc::ServerContext& context, const Void& request, rpc::CallHandle<Void> call) override;
  void HostData(rpc::ServerContext& context, const HostDataRequest& request,
                rpc::CallHandle<HostDataResponse> call) override;
  void ProcessEventReport(rpc::ServerContext& context, const EventReport& request,
                          rpc::CallHandle<EventReportResponse> call) override;
  std::unique_ptr<rpc::RequestObserver<StatusSource::SourceMsg>> RegisterStatusSource(
      rpc::ServerContext& context, StatusSource::Call call) override;
  void SubClientResponse(rpc::ServerContext& context, const SubClientResponseMsg& request,
                         rpc::CallHandle<Void> call) override;
  void Subscribe(rpc::ServerContext& context, const SubscribeRequest& request,
                 rpc::CallHandle<SubClientRequest> call) override;
  void Unused2(rpc::ServerContext& context, const Void& request, rpc::CallHandle<Void> call) override;
  void LeadershipChanged(rpc::ServerContext& context, const LeadershipRequest& request,
                         rpc::CallHandle<Void> call) override;

 private:
  QueueManager& events_;
  const std::shared_ptr<StatusSource> status_source_;
  ProviderHost& host_;
  ClientLibraryCommunicator& communicator_;
};

}  // namespace zem::Tarvik
