#include "sim/alarms/alarm_client.h"

#include <chrono>
#include <functional>
#include <set>
#include <utility>

#include "platform/core/uuid.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/server.h"
#include "platform/rpc/stub_factory.h"
#include "platform/rpc/transport.h"

namespace zem::sim {
namespace {

using orlane::zem::VoidMsg;
using orlane::zem::monitoring::MonitoringClientLibraryService;
using orlane::zem::monitoring::MonitoringFullSyncResponseMsg;
using orlane::zem::monitoring::MonitoringProcessEventReportRequestMsg;
using orlane::zem::monitoring::MonitoringProcessEventReportResponseMsg;
using orlane::zem::monitoring::MonitoringProviderService;
using orlane::zem::monitoring::MonitoringSubClientRequestMsg;
using orlane::zem::monitoring::MonitoringSubClientResponseMsg;
using orlane::zem::monitoring::MonitoringSubscribeRequestMsg;
using orlane::zem::monitoring::MonitoringSyncRequestMsg;
using orlane::zem::monitoring::MonitoringSyncResponseMsg;

constexpr const char* kEndpoint = "tcp://127.0.0.1:9100";
constexpr const char* kPrefix = "ALARMSLIB_EP::";
constexpr auto kLate = std::chrono::seconds(5);
constexpr auto kPause = std::chrono::seconds(1);
constexpr size_t kViolationsKept = 100;

enum RequestType : uint32_t { kWelcome = 1, kFullSync = 2, kSync = 3 };
enum ResponseType : uint32_t { kFullSyncAnswer = 1, kSyncAnswer = 2, kNoSuchAnswer = 9 };

template <class Response>
class FunctionObserver final : public rpc::CallObserver<Response> {
 public:
  FunctionObserver(std::function<void(const Response&)> next, std::function<void(const rpc::Status&)> end)
      : next_(std::move(next)), end_(std::move(end)) {}
  void Next(const Response& message) override {
    if (next_) next_(message);
  }
  void CallStatus(const rpc::Status& status) override {
    if (end_) end_(status);
    delete this;
  }

 private:
  const std::function<void(const Response&)> next_;
  const std::function<void(const rpc::Status&)> end_;
};

}  // namespace

// Outlives its AlarmClient by the callbacks that are still to come.
struct AlarmClient::Inner : std::enable_shared_from_this<Inner> {
  using Stub = MonitoringProviderService::Stub;

  explicit Inner(Options given) : options(std::move(given)), connections(provider.rpc()) {}

  void Violation(const std::string& text) {
    if (state.violations.size() < kViolationsKept) state.violations.push_back(text);
  }

  void Connect() {
    rpc::ConnectionParams params;
    params.retry = RetryPolicy{200, 1000, 2.0, -1};
    params.reconnect = {rpc::ReconnectPolicy::kAlways, params.retry};
    params.options.rpc.inbound = true;
    params.on_connected = [weak = weak_from_this()](const rpc::ConnectionInfo&) {
      if (const auto self = weak.lock()) self->Connected();
    };
    params.on_closed = [weak = weak_from_this()](rpc::CloseReason) {
      if (const auto self = weak.lock()) self->Disconnected();
    };
    connections.RequestConnection(net::Endpoint(kEndpoint), std::move(params));
  }

  void Connected() {
    {
      const std::lock_guard lock(mutex);
      state.connected = true;
      ++state.connections;
    }
    rpc::StubRequest request;
    request.source_id = options.source_id;
    request.target = net::Endpoint(kEndpoint);
    provider.rpc().stubs().create<Stub>(
        request, [weak = weak_from_this()](std::optional<Stub> made, const rpc::Status&) {
          if (const auto self = weak.lock(); self && made) self->TakeStub(std::move(*made));
        });
  }

  void Disconnected() {
    std::optional<Stub> ended;
    const std::lock_guard lock(mutex);
    ended.swap(stub);
    state.connected = false;
    state.welcomed = false;
    state.reporting = false;
    ++epoch;
  }

  void TakeStub(Stub made) {
    {
      const std::lock_guard lock(mutex);
      if (!state.connected) return;
      stub = made;
      ++epoch;
    }
    if (options.kind == Kind::kSubscribing) {
      Subscribe();
    } else {
      ReportNext();
    }
  }

  // --- A subscriber.

  void Subscribe() {
    std::optional<Stub> with;
    uint64_t now = 0;
    {
      const std::lock_guard lock(mutex);
      with = stub;
      now = epoch;
    }
    if (!with) return;
    MonitoringSubscribeRequestMsg request;
    request.set_source_id(options.source_id);
    with->Subscribe(rpc::ClientContext(), request,
                    new FunctionObserver<MonitoringSubClientRequestMsg>(
                        [weak = weak_from_this()](const MonitoringSubClientRequestMsg& message) {
                          if (const auto self = weak.lock()) self->TakeRequest(message);
                        },
                        [weak = weak_from_this(), now](const rpc::Status& status) {
                          if (const auto self = weak.lock()) self->SubscriptionEnded(now, status);
                        }));
  }

  void SubscriptionEnded(uint64_t of_epoch, const rpc::Status& status) {
    {
      const std::lock_guard lock(mutex);
      if (of_epoch != epoch) return;
      state.welcomed = false;
      if (status.code() == rpc::AppStatus::APPLICATION_ERROR ||
          status.code() == rpc::AppStatus::INVALID_ARGUMENT) {
        ++state.refused_subscriptions;
      }
    }
    provider.timers().Schedule(kPause, [weak = weak_from_this(), of_epoch] {
      const auto self = weak.lock();
      if (!self) return;
      {
        const std::lock_guard lock(self->mutex);
        if (of_epoch != self->epoch) return;
      }
      self->Subscribe();
    });
  }

  void TakeRequest(const MonitoringSubClientRequestMsg& message) {
    MonitoringSubClientResponseMsg response;
    response.set_source_id(options.source_id);
    response.set_correlation_id(message.correlation_id());
    {
      const std::lock_guard lock(mutex);
      if (!state.welcomed && message.msg_type() != kWelcome) Violation("a request before the welcome");
      switch (message.msg_type()) {
        case kWelcome:
          if (state.welcomed) Violation("a second welcome");
          state.welcomed = true;
          break;
        case kFullSync:
          CountFullSync();
          response.set_msg_type(kFullSyncAnswer);
          break;
        case kSync:
          *response.mutable_sync_response() = AnswerSync(message.sync_request());
          response.set_msg_type(kSyncAnswer);
          break;
        default:
          Violation("a request of type " + std::to_string(message.msg_type()));
          return;
      }
    }
    ReportNext();
    if (!response.has_msg_type()) return;
    if (fault_now() == Fault::kUnknownId) response.set_correlation_id(RandomUuidText());
    if (fault_now() == Fault::kWrongType) response.set_msg_type(kNoSuchAnswer);
    if (fault_now() == Fault::kOtherKind) response.set_msg_type(kFullSyncAnswer);
    if (fault_now() == Fault::kBare) {
      response.clear_source_id();
      response.clear_msg_type();
    }
    Deliver([response](Inner& self) { self.SendResponse(response); });
  }

  void SendResponse(const MonitoringSubClientResponseMsg& response) {
    std::optional<Stub> with;
    {
      const std::lock_guard lock(mutex);
      with = stub;
    }
    if (!with) return;
    with->SubClientResponse(
        rpc::ClientContext(), response,
        new FunctionObserver<VoidMsg>({}, [weak = weak_from_this()](const rpc::Status& status) {
          const auto self = weak.lock();
          if (!self || status.code() != rpc::AppStatus::INVALID_ARGUMENT) return;
          const std::lock_guard lock(self->mutex);
          ++self->state.refused_answers;
        }));
  }

  // --- Both kinds.

  Fault fault_now() const {
    const std::lock_guard lock(mutex);
    return fault;
  }

  void CountFullSync() {
    ++state.full_syncs;
    if (fault == Fault::kSilent) return;
    for (const auto& [key, context] : state.raised) to_report.insert(key);
  }

  MonitoringSyncResponseMsg AnswerSync(const MonitoringSyncRequestMsg& request) {
    ++state.syncs;
    MonitoringSyncResponseMsg answer;
    const auto found = state.raised.find({request.event_type_id(), UuidText(request.entity_id())});
    const bool stands = request.feature_id() == options.feature_id && found != state.raised.end();
    answer.set_status(stands ? 1 : 0);
    if (stands) answer.set_context(found->second);
    return answer;
  }

  // Gives an answer once, twice, later or never, as the fault says.
  void Deliver(std::function<void(Inner& self)> give) {
    switch (fault_now()) {
      case Fault::kSilent:
        return;
      case Fault::kLate:
        provider.timers().Schedule(kLate, [weak = weak_from_this(), give = std::move(give)] {
          if (const auto self = weak.lock()) give(*self);
        });
        return;
      case Fault::kDoubled:
        give(*this);
        break;
      default:
        break;
    }
    give(*this);
  }

  void Change(const Key& key, const std::optional<std::string>& context) {
    {
      const std::lock_guard lock(mutex);
      if (context) {
        state.raised[key] = *context;
      } else {
        state.raised.erase(key);
      }
      to_report.insert(key);
    }
    ReportNext();
  }

  // Reports one change at a time, so that an event's last state arrives last.
  void ReportNext() {
    MonitoringProcessEventReportRequestMsg report;
    std::set<Key> reported;
    uint64_t now = 0;
    std::optional<Stub> with;
    {
      const std::lock_guard lock(mutex);
      const bool ready = stub && (options.kind == Kind::kServing || state.welcomed);
      if (!ready || state.reporting || to_report.empty()) return;
      reported.swap(to_report);
      state.reporting = true;
      now = epoch;
      with = stub;
      auto* const feature = report.add_event_feature_report();
      feature->set_feature_id(options.feature_id);
      feature->set_source_id(options.source_id);
      orlane::zem::monitoring::MonitoringEventTypeStatusMsg* type = nullptr;
      for (const Key& key : reported) {
        if (type == nullptr || type->event_type_id() != key.first) {
          type = feature->add_event_type_status();
          type->set_event_type_id(key.first);
        }
        const auto found = state.raised.find(key);
        auto* const instance = type->add_event_instance_status();
        if (const auto entity = ParseUuid(key.second)) SetUuid(*entity, instance->mutable_entity_id());
        instance->set_status(found != state.raised.end() ? 1 : 0);
        if (found != state.raised.end()) instance->set_context(found->second);
      }
    }
    const auto taken = std::make_shared<bool>(false);
    with->ProcessEventReport(
        rpc::ClientContext(), report,
        new FunctionObserver<MonitoringProcessEventReportResponseMsg>(
            [taken](const MonitoringProcessEventReportResponseMsg& response) { *taken = response.result(); },
            [weak = weak_from_this(), taken, reported, now](const rpc::Status& status) {
              if (const auto self = weak.lock()) self->ReportEnded(now, status.ok() && *taken, reported);
            }));
  }

  void ReportEnded(uint64_t of_epoch, bool taken, const std::set<Key>& reported) {
    {
      const std::lock_guard lock(mutex);
      if (!taken) {
        to_report.insert(reported.begin(), reported.end());
        ++state.refused_reports;
      }
      if (of_epoch != epoch) return;
      if (taken) state.reporting = false;
    }
    if (taken) return ReportNext();
    provider.timers().Schedule(kPause, [weak = weak_from_this(), of_epoch] {
      const auto self = weak.lock();
      if (!self) return;
      {
        const std::lock_guard lock(self->mutex);
        if (of_epoch != self->epoch) return;
        self->state.reporting = false;
      }
      self->ReportNext();
    });
  }

  const Options options;
  AsioZemProvider provider;
  rpc::ConnectionManager connections;
  std::unique_ptr<rpc::Server> server;

  mutable std::mutex mutex;  // guards what follows
  State state;
  Fault fault = Fault::kNone;
  std::optional<Stub> stub;
  uint64_t epoch = 0;  // counts connections and their ends
  std::set<Key> to_report;
};

class AlarmClient::Service final : public MonitoringClientLibraryService::Service {
 public:
  explicit Service(std::weak_ptr<Inner> inner) : inner_(std::move(inner)) {}

  void Sync(rpc::ServerContext&, const MonitoringSyncRequestMsg& request,
            rpc::CallHandle<MonitoringSyncResponseMsg> call) override {
    const auto inner = inner_.lock();
    if (!inner) return;
    MonitoringSyncResponseMsg answer;
    {
      const std::lock_guard lock(inner->mutex);
      answer = inner->AnswerSync(request);
    }
    inner->Deliver([answer, call](Inner&) mutable { call.Finish(answer); });
  }

  void FullSync(rpc::ServerContext&, const VoidMsg&,
                rpc::CallHandle<MonitoringFullSyncResponseMsg> call) override {
    const auto inner = inner_.lock();
    if (!inner) return;
    {
      const std::lock_guard lock(inner->mutex);
      inner->CountFullSync();
    }
    MonitoringFullSyncResponseMsg answer;
    answer.set_result(true);
    inner->Deliver([answer, call](Inner&) mutable { call.Finish(answer); });
    inner->ReportNext();
  }

 private:
  const std::weak_ptr<Inner> inner_;
};

AlarmClient::AlarmClient(Options options) : inner_(std::make_shared<Inner>(std::move(options))) {
  Inner& inner = *inner_;
  if (inner.options.kind == Kind::kServing) {
    rpc::ServerBuilder builder(inner.provider.rpc());
    builder.AddLocalEndpointId(kPrefix + inner.options.source_id);
    for (const std::string& id : inner.options.more_ids) builder.AddLocalEndpointId(kPrefix + id);
    if (inner.options.serves) builder.RegisterService(std::make_shared<Service>(inner_));
    inner.server = builder.BuildStarted();
  }
  inner.provider.RunAsync(1);
  inner.Connect();
}

AlarmClient::~AlarmClient() {
  std::optional<Inner::Stub> ended;
  {
    const std::lock_guard lock(inner_->mutex);
    ended.swap(inner_->stub);
  }
  inner_->provider.StopAndWait(true);
}

void AlarmClient::Raise(const Key& key, const std::string& context) { inner_->Change(key, context); }
void AlarmClient::Clear(const Key& key) { inner_->Change(key, std::nullopt); }

void AlarmClient::SetFault(Fault fault) {
  const std::lock_guard lock(inner_->mutex);
  inner_->fault = fault;
}

bool AlarmClient::Report(const MonitoringProcessEventReportRequestMsg& report, Reported reported) {
  std::optional<Inner::Stub> with;
  {
    const std::lock_guard lock(inner_->mutex);
    with = inner_->stub;
  }
  if (!with) return false;
  const auto result = std::make_shared<bool>(false);
  with->ProcessEventReport(
      rpc::ClientContext(), report,
      new FunctionObserver<MonitoringProcessEventReportResponseMsg>(
          [result](const MonitoringProcessEventReportResponseMsg& response) { *result = response.result(); },
          [result, reported = std::move(reported)](const rpc::Status& status) {
            reported(status, *result);
          }));
  return true;
}

void AlarmClient::Reconnect() {
  inner_->connections.TeardownConnection(net::Endpoint(kEndpoint));
  inner_->Connect();
}

AlarmClient::State AlarmClient::state() const {
  const std::lock_guard lock(inner_->mutex);
  State state = inner_->state;
  state.reporting = state.reporting || !inner_->to_report.empty();
  return state;
}

}  // namespace zem::sim
