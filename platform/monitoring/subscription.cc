#include "platform/monitoring/subscription.h"

#include <chrono>
#include <utility>

#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/stub_factory.h"
#include "platform/rpc/transport.h"

namespace zem::monitoring {
namespace {

constexpr const char* kProvider = "tcp://127.0.0.1:9100";
constexpr auto kCallTimeout = std::chrono::seconds(30);

// The provider's requests.
constexpr uint32_t kWelcome = 1;
constexpr uint32_t kFullSync = 2;
constexpr uint32_t kSync = 3;
// The answers to them.
constexpr uint32_t kFullSyncAnswer = 1;
constexpr uint32_t kSyncAnswer = 2;

using orlane::zem::VoidMsg;
using orlane::zem::monitoring::MonitoringProcessEventReportRequestMsg;
using orlane::zem::monitoring::MonitoringProcessEventReportResponseMsg;
using orlane::zem::monitoring::MonitoringSubClientResponseMsg;
using orlane::zem::monitoring::MonitoringSubscribeRequestMsg;

// The provider learns from the next report what an answer that is lost would have said.
class AnswerObserver final : public rpc::CallObserver<VoidMsg> {
 public:
  void Next(const VoidMsg&) override {}
  void CallStatus(const rpc::Status&) override { delete this; }
};

rpc::ClientContext Bounded() {
  rpc::ClientContext context;
  context.set_timeout(kCallTimeout);
  return context;
}

}  // namespace

class Subscription::RequestObserver final : public rpc::CallObserver<Request> {
 public:
  RequestObserver(std::weak_ptr<Subscription> owner, uint64_t connection)
      : owner_(std::move(owner)), connection_(connection) {}

  void Next(const Request& request) override {
    if (const auto owner = owner_.lock()) owner->HandleRequest(connection_, request);
  }
  void CallStatus(const rpc::Status&) override {
    if (const auto owner = owner_.lock()) owner->StartAgain(connection_);
    delete this;
  }

 private:
  const std::weak_ptr<Subscription> owner_;
  const uint64_t connection_;
};

class Subscription::ReportObserver final : public rpc::CallObserver<MonitoringProcessEventReportResponseMsg> {
 public:
  ReportObserver(std::weak_ptr<Subscription> owner, uint64_t connection)
      : owner_(std::move(owner)), connection_(connection) {}

  void Next(const MonitoringProcessEventReportResponseMsg& response) override { taken_ = response.result(); }
  void CallStatus(const rpc::Status& status) override {
    if (const auto owner = owner_.lock()) owner->ReportEnded(connection_, status.ok() && taken_);
    delete this;
  }

 private:
  const std::weak_ptr<Subscription> owner_;
  const uint64_t connection_;
  bool taken_ = false;
};

Subscription::Subscription(std::string source_id, uint16_t feature_id)
    : source_id_(source_id),
      provider_(std::make_unique<AsioZemProvider>()),
      instances_(std::move(source_id), feature_id) {}

Subscription::~Subscription() = default;

void Subscription::Start() {
  provider_->RunAsync(1);
  MakeStub();
}

void Subscription::Stop() {
  std::optional<Stub> ended;
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    ended.swap(stub_);
  }
  provider_->StopAndWait(false);
}

bool Subscription::Set(const Instances::Key& key, bool raised, const std::string& context) {
  {
    const std::lock_guard lock(mutex_);
    if (!instances_.Set(key, raised, context)) return false;
  }
  Report();
  return true;
}

void Subscription::Clear(const Instances::Key& key) {
  {
    const std::lock_guard lock(mutex_);
    instances_.Clear(key);
  }
  Report();
}

// --- The connection.

void Subscription::MakeStub() {
  rpc::StubRequest request;
  request.source_id = source_id_;
  request.target = net::Endpoint(kProvider);
  request.policy = RetryPolicy{1000, 5000, 2.0, -1};
  provider_->rpc().stubs().create<Stub>(
      request, [weak = weak_from_this()](std::optional<Stub> stub, const rpc::Status&) {
        if (const auto self = weak.lock()) self->TakeStub(std::move(stub));
      });
}

void Subscription::TakeStub(std::optional<Stub> stub) {
  uint64_t connection = 0;
  {
    const std::lock_guard lock(mutex_);
    if (stopped_) return;
    connection = ++connection_;
    stub_ = stub;
    subscribed_ = false;
  }
  if (!stub) return StartAgain(connection);
  MonitoringSubscribeRequestMsg request;
  request.set_source_id(source_id_);
  // The call's status is the end of the subscription, whatever ended it.
  stub->Subscribe(rpc::ClientContext(), request, new RequestObserver(weak_from_this(), connection));
}

void Subscription::StartAgain(uint64_t connection) {
  std::optional<Stub> ended;
  {
    const std::lock_guard lock(mutex_);
    if (stopped_ || connection != connection_) return;
    ended.swap(stub_);
    subscribed_ = false;
    if (std::exchange(reporting_, false)) instances_.ReportFailed();
  }
  RunLater(&Subscription::MakeStub);
}

void Subscription::RunLater(void (Subscription::*work)()) {
  std::chrono::milliseconds delay{};
  {
    const std::lock_guard lock(mutex_);
    delay = std::chrono::milliseconds(delays_.NextDelay());
  }
  provider_->timers().Schedule(delay, [weak = weak_from_this(), work] {
    if (const auto self = weak.lock()) ((*self).*work)();
  });
}

// --- What the provider asks.

void Subscription::HandleRequest(uint64_t connection, const Request& request) {
  MonitoringSubClientResponseMsg response;
  response.set_source_id(source_id_);
  response.set_correlation_id(request.correlation_id());
  std::optional<Stub> stub;
  {
    const std::lock_guard lock(mutex_);
    if (connection != connection_ || !stub_) return;
    stub = stub_;
    switch (request.msg_type()) {
      case kWelcome:
        subscribed_ = true;
        delays_.Reset();
        break;
      case kFullSync:
        instances_.MarkAll();
        response.set_msg_type(kFullSyncAnswer);
        break;
      case kSync:
        instances_.Answer(request.sync_request(), response.mutable_sync_response());
        response.set_msg_type(kSyncAnswer);
        break;
      default:
        return;
    }
  }
  if (response.has_msg_type()) stub->SubClientResponse(Bounded(), response, new AnswerObserver);
  Report();
}

// --- Reports: one at a time, so that the last state of an instance is the last one that arrives.

void Subscription::Report() {
  MonitoringProcessEventReportRequestMsg report;
  std::optional<Stub> stub;
  uint64_t connection = 0;
  {
    const std::lock_guard lock(mutex_);
    if (!subscribed_ || !stub_ || reporting_ || report_waits_ || !instances_.NextReport(&report)) return;
    reporting_ = true;
    stub = stub_;
    connection = connection_;
  }
  stub->ProcessEventReport(Bounded(), report, new ReportObserver(weak_from_this(), connection));
}

void Subscription::ReportEnded(uint64_t connection, bool taken) {
  {
    const std::lock_guard lock(mutex_);
    if (connection != connection_ || !reporting_) return;
    reporting_ = false;
    if (taken) {
      delays_.Reset();
      instances_.ReportTaken();
    } else {
      instances_.ReportFailed();
      report_waits_ = true;
    }
  }
  if (taken) return Report();
  RunLater(&Subscription::ReportAgain);
}

void Subscription::ReportAgain() {
  {
    const std::lock_guard lock(mutex_);
    report_waits_ = false;
  }
  Report();
}

}  // namespace zem::monitoring
