#include "app/alarmsprovider/link/status_source.h"

#include <chrono>
#include <utility>

#include "app/alarmsprovider/link/client_messages.h"
#include "app/alarmsprovider/link/provider_host.h"
#include "app/alarmsprovider/status/status_queue_manager.h"
#include "framework/log/log.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

constexpr auto kFullSyncPatience = std::chrono::seconds(10);

using orlane::zem::monitoring::MonitoringStatusFullSyncMsg;
using orlane::zem::monitoring::MonitoringStatusProviderMsg;
using orlane::zem::monitoring::MonitoringStatusReportMsg;

MonitoringStatusProviderMsg ConfigMessage(uint32_t type, const StatusSource::Table& table, bool enabled) {
  MonitoringStatusProviderMsg message;
  message.set_msg_type(type);
  message.set_collection_enabled(enabled);
  for (const auto& [name, interval] : table) {
    auto* const entry = message.add_data_collection_cfg();
    entry->set_feature_stack_name(name);
    entry->set_poll_interval(interval);
  }
  return message;
}

}  // namespace

class StatusSource::RegisterStatusSourceObserver final : public rpc::RequestObserver<SourceMsg> {
 public:
  RegisterStatusSourceObserver(std::shared_ptr<StatusSource> source, Call call)
      : source_(std::move(source)), call_(std::move(call)) {}

  void SetActive() { active_ = true; }

  void Next(const SourceMsg& message) override {
    if (!active_) return;
    switch (message.msg_type()) {
      case StatusSourceType::kHello:
        return source_->TakeHello(this);
      case StatusSourceType::kFullSync:
        return source_->TakeFullSync(this, message.full_sync());
      case StatusSourceType::kReport:
        if (message.has_report()) source_->TakeReport(message.report());
        return;
      default:
        return;
    }
  }

  void End(const rpc::Status& status) override {
    if (status.ok()) {
      ZLOG_INFO("RegisterStatusSource RemoteStatus %s", status.ToString().c_str());
      if (active_) call_.Close(rpc::Status());
    }
    ZLOG_INFO("RegisterStatusSource CallStatus %s", status.ToString().c_str());
    if (active_) source_->Unregister(this);
  }

 private:
  const std::shared_ptr<StatusSource> source_;
  Call call_;
  bool active_ = false;
};

StatusSource::StatusSource(StatusQueueManager& queue, ProviderHost& host,
                           std::function<void()> full_sync_needed)
    : queue_(queue), host_(host), full_sync_needed_(std::move(full_sync_needed)) {}

std::unique_ptr<rpc::RequestObserver<StatusSource::SourceMsg>> StatusSource::Register(Call call) {
  auto observer = std::make_unique<RegisterStatusSourceObserver>(shared_from_this(), call);
  {
    const std::lock_guard lock(mutex_);
    if (!std::exchange(source_registered_, true)) {
      observer->SetActive();
      observer_ = observer.get();
      call_ = std::move(call);
      full_sync_asked_.reset();
      return observer;
    }
  }
  call.Close(rpc::AppStatus::APPLICATION_ERROR);
  return observer;
}

void StatusSource::TakeHello(const RegisterStatusSourceObserver* source) {
  const ProviderMsg answer =
      ConfigMessage(StatusProviderType::kSendFullSync, host_.GetPollingConfig(), host_.IsCollectionEnabled());
  const std::lock_guard lock(mutex_);
  if (observer_ == source && call_.Write(answer)) full_sync_asked_ = Clock::Process().Now();
}

void StatusSource::TakeFullSync(const RegisterStatusSourceObserver* source,
                                const MonitoringStatusFullSyncMsg& message) {
  bool lost = false;
  {
    const std::lock_guard lock(mutex_);
    if (observer_ != source) return;
    full_sync_asked_.reset();
    queue_.Reset(false);
    queue_.Start();
    if (!message.success()) {
      ZLOG_DEBUG("StatusSource FullSync failed");
      return;
    }
    MonitoringStatusReportMsg report;
    *report.mutable_status_vertical_report() = message.status_vertical_report();
    ZLOG_TRACE("AggSvc Status FullSync Response: %s", report.ShortDebugString().c_str());
    lost = !queue_.Enqueue(report);
    ProviderMsg answer;
    answer.set_msg_type(StatusProviderType::kFullSyncReceived);
    (void)call_.Write(answer);
  }
  if (!lost) return;
  ZLOG_WARN("AggSvc status full-sync write to queue failed. Will retry.");
  full_sync_needed_();
}

void StatusSource::TakeReport(const MonitoringStatusReportMsg& report) {
  ZLOG_TRACE("AggSvc Status Report: %s", report.ShortDebugString().c_str());
  if (queue_.Enqueue(report)) return;
  ZLOG_WARN("AggSvc status write to queue failed. Will retry.");
  full_sync_needed_();
}

void StatusSource::Unregister(const RegisterStatusSourceObserver* source) {
  const std::lock_guard lock(mutex_);
  if (observer_ != source) return;
  source_registered_ = false;
  observer_ = nullptr;
  call_ = Call();
  full_sync_asked_.reset();
}

bool StatusSource::RequestFullSync() {
  const std::lock_guard lock(mutex_);
  if (!source_registered_) return false;
  const TimePoint now = Clock::Process().Now();
  // Each report that does not fit asks for a full sync; one is enough for all of them.
  if (full_sync_asked_ && now - *full_sync_asked_ < kFullSyncPatience) return true;
  ProviderMsg request;
  request.set_msg_type(StatusProviderType::kSendFullSync);
  if (!call_.Write(request)) return false;
  full_sync_asked_ = now;
  ZLOG_INFO("Status-source FullSync initiated");
  return true;
}

void StatusSource::SendConfig(const Table& table, bool enabled) {
  const std::lock_guard lock(mutex_);
  if (source_registered_)
    (void)call_.Write(ConfigMessage(StatusProviderType::kConfiguration, table, enabled));
}

}  // namespace zem::Tarvik
