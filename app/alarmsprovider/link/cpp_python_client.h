#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "app/alarmsprovider/link/client.h"
#include "platform/rpc/call.h"
#include "proto/monitoring/monitoring_services.pb.h"

namespace zem {
class AsioZemProvider;
class Timer;
}  // namespace zem

namespace zem::Tarvik {

class ClientLibMsgCtx;

/// A client that reads requests from its `Subscribe` call and answers them by calls of its own.
///
/// Limits: 1024 requests wait for an answer, each for 60 s; a request beyond that is completed without a
/// result.
class CppPythonClient final : public Client {
 public:
  using Request = orlane::zem::monitoring::MonitoringSubClientRequestMsg;
  using Response = orlane::zem::monitoring::MonitoringSubClientResponseMsg;
  using Call = rpc::CallHandle<Request>;

  CppPythonClient(AsioZemProvider& provider, std::string source_id, Call call);
  ~CppPythonClient() override;

  /// The first message of a subscription.  Returns false when the call has ended.
  bool WriteWelcome();
  void Sync(std::shared_ptr<SyncCtx> context) override;
  void FullSync(std::shared_ptr<FullSyncCtx> context) override;
  bool IsClosed() const override { return call_.FinalStatus().has_value(); }

  /// Takes the client's answer to an earlier request.
  void HandleResponse(const Response& response);
  /// Completes all requests that wait, without a result.
  void AbandonRequests();

 private:
  struct Pending {
    std::shared_ptr<ClientLibMsgCtx> context;
    std::shared_ptr<Timer> expiry;
  };

  void Send(Request request, std::shared_ptr<ClientLibMsgCtx> context);
  /// Null when there is no such request.
  std::shared_ptr<ClientLibMsgCtx> Take(const std::string& correlation_id);

  AsioZemProvider& provider_;
  const std::string source_id_;
  Call call_;
  std::mutex mutex_;                        // guards pending_
  std::map<std::string, Pending> pending_;  // by correlation id
};

}  // namespace zem::Tarvik
