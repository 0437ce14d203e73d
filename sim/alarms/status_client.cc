#include "sim/alarms/status_client.h"

#include <chrono>
#include <optional>
#include <utility>

#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/connection.h"
#include "platform/rpc/stub_factory.h"
#include "platform/rpc/transport.h"
#include "proto/monitoring/monitoring_services.rpc.h"

namespace zem::sim {
namespace {

using orlane::zem::monitoring::MonitoringProviderService;
using orlane::zem::monitoring::MonitoringStatusProviderMsg;
using orlane::zem::monitoring::MonitoringStatusSourceMsg;

constexpr const char* kEndpoint = "tcp://127.0.0.1:9100";
constexpr auto kPause = std::chrono::seconds(1);

enum SourceType : uint32_t { kHello = 1, kFullSync = 2, kReport = 3 };
enum ProviderType : uint32_t { kSendFullSync = 1, kFullSyncReceived = 2, kConfiguration = 3 };

}  // namespace

// Outlives its StatusClient by the callbacks that are still to come.
struct StatusClient::Inner : std::enable_shared_from_this<Inner> {
  using Stub = MonitoringProviderService::Stub;
  using Stream = rpc::StreamHandle<MonitoringStatusSourceMsg, MonitoringStatusProviderMsg>;

  class Observer final : public rpc::CallObserver<MonitoringStatusProviderMsg> {
   public:
    explicit Observer(std::weak_ptr<Inner> owner) : owner_(std::move(owner)) {}
    void Next(const MonitoringStatusProviderMsg& message) override {
      if (const auto owner = owner_.lock()) owner->Take(message);
    }
    void CallStatus(const rpc::Status& status) override {
      if (const auto owner = owner_.lock()) owner->Ended(status);
      delete this;
    }

   private:
    const std::weak_ptr<Inner> owner_;
  };

  void MakeStub() {
    rpc::StubRequest request;
    request.source_id = "status-source";
    request.target = net::Endpoint(kEndpoint);
    request.policy = RetryPolicy{200, 1000, 2.0, -1};
    provider.rpc().stubs().create<Stub>(
        request, [weak = weak_from_this()](std::optional<Stub> made, const rpc::Status&) {
          const auto self = weak.lock();
          if (!self || !made) return;
          auto opened = made->RegisterStatusSource(rpc::ClientContext(), new Observer(self));
          MonitoringStatusSourceMsg hello;
          hello.set_msg_type(kHello);
          opened.WriteRequest(hello);
          const std::lock_guard lock(self->mutex);
          self->stub = std::move(made);
          self->stream = std::move(opened);
        });
  }

  void Ended(const rpc::Status& status) {
    std::optional<Stub> ended;
    {
      const std::lock_guard lock(mutex);
      if (status.code() == rpc::AppStatus::APPLICATION_ERROR) ++state.refused;
      state.registered = false;
      stream = Stream();
      ended.swap(stub);
    }
    provider.timers().Schedule(kPause, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->MakeStub();
    });
  }

  void Take(const MonitoringStatusProviderMsg& message) {
    const std::lock_guard lock(mutex);
    state.registered = true;
    switch (message.msg_type()) {
      case kSendFullSync:
        ++state.full_syncs_asked;
        if (message.has_collection_enabled()) TakeConfig(message);
        SendFullSync();
        return;
      case kFullSyncReceived:
        ++state.full_syncs_confirmed;
        return;
      case kConfiguration:
        ++state.configurations;
        TakeConfig(message);
        return;
      default:
        return;
    }
  }

  void TakeConfig(const MonitoringStatusProviderMsg& message) {
    state.collection_enabled = message.collection_enabled();
    state.table.clear();
    for (const auto& entry : message.data_collection_cfg())
      state.table[entry.feature_stack_name()] = entry.poll_interval();
  }

  void SendFullSync() {
    if (full_syncs == FullSyncs::kUnanswered) return;
    MonitoringStatusSourceMsg answer;
    answer.set_msg_type(kFullSync);
    answer.mutable_full_sync()->set_success(full_syncs == FullSyncs::kSucceed);
    for (const auto& [feature, status] : state.statuses) {
      auto* const report = answer.mutable_full_sync()->add_status_vertical_report();
      report->set_name(feature);
      report->set_payload(status);
    }
    stream.WriteRequest(answer);
  }

  AsioZemProvider provider;

  mutable std::mutex mutex;  // guards what follows, and is held while a message is written
  State state;
  FullSyncs full_syncs = FullSyncs::kSucceed;
  std::optional<Stub> stub;
  Stream stream;
};

StatusClient::StatusClient() : inner_(std::make_shared<Inner>()) {
  inner_->provider.RunAsync(1);
  inner_->MakeStub();
}

StatusClient::~StatusClient() { inner_->provider.StopAndWait(true); }

void StatusClient::Set(const std::string& feature, const std::string& status) {
  const std::lock_guard lock(inner_->mutex);
  inner_->state.statuses[feature] = status;
  if (!inner_->stream) return;
  MonitoringStatusSourceMsg message;
  message.set_msg_type(kReport);
  auto* const report = message.mutable_report()->add_status_vertical_report();
  report->set_name(feature);
  report->set_payload(status);
  inner_->stream.WriteRequest(message);
}

void StatusClient::SendHeartbeat() {
  const std::lock_guard lock(inner_->mutex);
  if (!inner_->stream) return;
  MonitoringStatusSourceMsg message;
  message.set_msg_type(kReport);
  message.mutable_report()->set_heartbeat(1);
  inner_->stream.WriteRequest(message);
}

void StatusClient::SetFullSyncs(FullSyncs full_syncs) {
  const std::lock_guard lock(inner_->mutex);
  inner_->full_syncs = full_syncs;
}

StatusClient::State StatusClient::state() const {
  const std::lock_guard lock(inner_->mutex);
  return inner_->state;
}

}  // namespace zem::sim
