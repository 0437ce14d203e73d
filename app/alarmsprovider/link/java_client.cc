#include "app/alarmsprovider/link/java_client.h"

#include <utility>

#include "app/alarmsprovider/link/client_lib_msg_ctx.h"
#include "app/alarmsprovider/link/limits.h"
#include "framework/log/log.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

using orlane::zem::VoidMsg;
using orlane::zem::monitoring::MonitoringFullSyncResponseMsg;
using orlane::zem::monitoring::MonitoringSyncResponseMsg;

void LogRemoteStatus(const rpc::Status& status) {
  ZLOG_DEBUG("Response debug message (%s)", status.ToString().c_str());
}
void LogCallStatus(const rpc::Status& status) {
  ZLOG_DEBUG("Received status (%s)", status.ToString().c_str());
}

class SyncObserver final : public rpc::CallObserver<MonitoringSyncResponseMsg> {
 public:
  explicit SyncObserver(std::shared_ptr<SyncCtx> context) : context_(std::move(context)) {}

  void Next(const MonitoringSyncResponseMsg& response) override {
    ZLOG_DEBUG("Got response from client lib for sync req with correlationId: %s",
               context_->correlation_id().c_str());
    context_->Complete(response);
  }
  void RemoteStatus(const rpc::Status& status) override { LogRemoteStatus(status); }
  void CallStatus(const rpc::Status& status) override {
    LogCallStatus(status);
    // Only has an effect when the call ended without an answer.
    context_->CompleteWithoutResult();
    delete this;
  }

 private:
  const std::shared_ptr<SyncCtx> context_;
};

class FullSyncObserver final : public rpc::CallObserver<MonitoringFullSyncResponseMsg> {
 public:
  void Next(const MonitoringFullSyncResponseMsg& response) override {
    ZLOG_DEBUG("Got response from client lib: %d", response.result() ? 1 : 0);
  }
  void RemoteStatus(const rpc::Status& status) override { LogRemoteStatus(status); }
  void CallStatus(const rpc::Status& status) override {
    LogCallStatus(status);
    delete this;
  }
};

// A client that never answers must not keep its calls for ever.
rpc::ClientContext BoundedCall() {
  rpc::ClientContext context;
  context.set_timeout(kMaxPendingTime);
  return context;
}

}  // namespace

JavaClient::JavaClient(std::optional<Stub> stub) : stub_(std::move(stub)) {}

void JavaClient::Sync(std::shared_ptr<SyncCtx> context) {
  if (!stub_) {
    ZLOG_INFO("ClientLibraryService stub not ready");
    return;
  }
  Stub stub = *stub_;
  const auto request = SyncRequestOf(*context);
  stub.Sync(BoundedCall(), request, new SyncObserver(std::move(context)));
  ZLOG_DEBUG("Invoked Sync");
}

void JavaClient::FullSync(std::shared_ptr<FullSyncCtx>) {
  if (!stub_) {
    ZLOG_INFO("ClientLibraryService stub not ready");
    return;
  }
  Stub stub = *stub_;
  stub.FullSync(BoundedCall(), VoidMsg(), new FullSyncObserver);
  ZLOG_DEBUG("Invoked FullSync");
}

}  // namespace zem::Tarvik
