// Alarm events through the provider's port into its queue, beside a service that takes the same reports and
// does nothing with them.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <vector>

#include "app/alarmsprovider/collector/collector_messages.h"
#include "app/alarmsprovider/collector/node_id_cache.h"
#include "app/alarmsprovider/events/queue_manager.h"
#include "app/alarmsprovider/link/client_library_communicator.h"
#include "app/alarmsprovider/link/provider_host.h"
#include "app/alarmsprovider/status/status_queue_manager.h"
#include "framework/log/logger.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/server.h"
#include "platform/rpc/stub_factory.h"
#include "platform/rpc/transport.h"
#include "proto/monitoring/monitoring_services.rpc.h"

namespace {

namespace monitoring = orlane::zem::monitoring;
using monitoring::MonitoringProviderService;
using Request = monitoring::MonitoringProcessEventReportRequestMsg;
using Response = monitoring::MonitoringProcessEventReportResponseMsg;
using SteadyClock = std::chrono::steady_clock;

constexpr const char* kBarePort = "tcp://127.0.0.1:9101";
constexpr const char* kProviderPort = "tcp://127.0.0.1:9100";
constexpr int kEventsPerReport = 100;
constexpr int kUnderWay = 8;
// Within half of the queue: nothing is sent meanwhile.
constexpr int kBurst = 300;
constexpr int kSustained = 10'000;
constexpr int kBurstRounds = 10;

Request Report() {
  Request report;
  auto* const feature = report.add_event_feature_report();
  feature->set_feature_id(33);
  feature->set_source_id("ctxteng");
  auto* const type = feature->add_event_type_status();
  type->set_event_type_id(15);
  for (int i = 0; i < kEventsPerReport; ++i) {
    auto* const instance = type->add_event_instance_status();
    instance->mutable_entity_id()->set_first(0xaaaaaaaa00004000);
    instance->mutable_entity_id()->set_second(static_cast<uint64_t>(i));
    instance->set_status(1);
    instance->set_context("{\"entity_id\":\"aaaaaaaa-0000-4000-8000-000000000001\",\"usage\":97}");
  }
  return report;
}

// Answers each report at once.
class BareService final : public MonitoringProviderService::Service {
 public:
  using Void = orlane::zem::VoidMsg;
  template <class T>
  using Call = zem::rpc::CallHandle<T>;
  using Context = zem::rpc::ServerContext;

  void ProcessEventReport(Context&, const Request&, Call<Response> call) override {
    Response response;
    response.set_result(true);
    call.Finish(response);
  }
  void SourceSync(Context&, const monitoring::MonitoringSourceSyncRequestMsg&, Call<Void>) override {}
  void Unused1(Context&, const Void&, Call<Void>) override {}
  void HostData(Context&, const monitoring::MonitoringHostDataRequestMsg&,
                Call<monitoring::MonitoringHostDataResponseMsg>) override {}
  std::unique_ptr<zem::rpc::RequestObserver<monitoring::MonitoringStatusSourceMsg>> RegisterStatusSource(
      Context&, Call<monitoring::MonitoringStatusProviderMsg>) override {
    return nullptr;
  }
  void SubClientResponse(Context&, const monitoring::MonitoringSubClientResponseMsg&, Call<Void>) override {}
  void Subscribe(Context&, const monitoring::MonitoringSubscribeRequestMsg&,
                 Call<monitoring::MonitoringSubClientRequestMsg>) override {}
  void Unused2(Context&, const Void&, Call<Void>) override {}
  void LeadershipChanged(Context&, const monitoring::LeadershipChangedRequestMsg&, Call<Void>) override {}
};

class DroppingCollector final : public zem::Tarvik::CollectorSender {
 public:
  bool SendToCollector(const monitoring::CollectorMpMsg&, const std::string&, int32_t) override {
    return true;
  }
};

class NoHost final : public zem::Tarvik::ProviderHost {
 public:
  void AddSourceId(const std::string&) override {}
  std::map<std::string, uint32_t> GetPollingConfig() override { return {}; }
  bool IsCollectionEnabled() override { return true; }
  void HandleLeadershipChange(const monitoring::LeadershipChangedRequestMsg&) override {}
};

/// A client with one connection that keeps some reports under way.
class Client {
 public:
  explicit Client(const char* port) {
    provider_.RunAsync(1);
    zem::rpc::StubRequest request;
    request.source_id = "bench";
    request.target = zem::net::Endpoint(port);
    std::mutex mutex;
    std::condition_variable made;
    bool done = false;
    provider_.rpc().stubs().create<MonitoringProviderService::Stub>(
        request, [&](std::optional<MonitoringProviderService::Stub> stub, const zem::rpc::Status&) {
          const std::lock_guard lock(mutex);
          stub_ = std::move(stub);
          done = true;
          made.notify_all();
        });
    std::unique_lock lock(mutex);
    made.wait(lock, [&] { return done; });
    if (!stub_) throw std::runtime_error(std::string("no stub for ") + port);
  }
  ~Client() {
    stub_.reset();
    provider_.StopAndWait(true);
  }

  /// Events per second, over so many reports.
  double Run(int reports) {
    left_ = all_reports_ = reports;
    ended_ = 0;
    refused_ = 0;
    const auto begin = SteadyClock::now();
    provider_.dispatcher().Post([this] {
      for (int i = 0; i < kUnderWay; ++i) SendOne();
    });
    std::unique_lock lock(mutex_);
    all_.wait(lock, [this] { return ended_ == all_reports_; });
    if (refused_ != 0) throw std::runtime_error(std::to_string(refused_) + " reports were refused");
    return static_cast<double>(reports) * kEventsPerReport /
           std::chrono::duration<double>(SteadyClock::now() - begin).count();
  }

 private:
  class Observer final : public zem::rpc::CallObserver<Response> {
   public:
    explicit Observer(Client& client) : client_(client) {}
    void Next(const Response& response) override { taken_ = response.result(); }
    void CallStatus(const zem::rpc::Status& status) override {
      client_.Ended(status.ok() && taken_);
      delete this;
    }

   private:
    Client& client_;
    bool taken_ = false;
  };

  // On the provider's thread.
  void SendOne() {
    if (left_ == 0) return;
    --left_;
    stub_->ProcessEventReport(zem::rpc::ClientContext(), report_, new Observer(*this));
  }
  void Ended(bool taken) {
    SendOne();
    const std::lock_guard lock(mutex_);
    if (!taken) ++refused_;
    if (++ended_ == all_reports_) all_.notify_all();
  }

  const Request report_ = Report();
  zem::AsioZemProvider provider_;
  std::optional<MonitoringProviderService::Stub> stub_;
  int left_ = 0;
  int all_reports_ = 0;
  std::mutex mutex_;  // guards what follows
  std::condition_variable all_;
  int ended_ = 0;
  int refused_ = 0;
};

double Median(std::vector<double> figures) {
  std::ranges::sort(figures);
  return figures[figures.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  zem::Logger::SetEmitter([](int, const char*) {});
  try {
    zem::AsioZemProvider bare_provider;
    bare_provider.RunAsync(1);
    const auto bare = zem::rpc::ServerBuilder(bare_provider.rpc())
                          .AddListeningEndpoint(zem::net::Endpoint(kBarePort))
                          .RegisterService(std::make_shared<BareService>())
                          .BuildStarted();
    zem::AsioZemProvider agent;
    agent.RunAsync(1);
    DroppingCollector collector;
    NoHost host;
    zem::Tarvik::NodeIdCache ids;
    const auto events = std::make_shared<zem::Tarvik::QueueManager>(agent, collector, ids);
    const auto statuses = std::make_shared<zem::Tarvik::StatusQueueManager>(agent, collector, ids);
    const auto communicator =
        std::make_shared<zem::Tarvik::ClientLibraryCommunicator>(*events, *statuses, host);
    if (!communicator->Start()) throw std::runtime_error("port 9100 is taken");
    events->Start();
    {
      Client to_bare(kBarePort);
      Client to_provider(kProviderPort);
      for (const auto& [name, reports] : {std::pair{"burst", kBurst}, {"sustained", kSustained}}) {
        std::vector<double> bare_figures;
        std::vector<double> our_figures;
        for (int i = 0; i < rounds * (reports == kBurst ? kBurstRounds : 1); ++i) {
          events->Reset();
          bare_figures.push_back(to_bare.Run(reports));
          our_figures.push_back(to_provider.Run(reports));
        }
        const double bare_median = Median(bare_figures);
        const double our_median = Median(our_figures);
        std::printf("alarms %s events_per_s ours=%.0f peer=%.0f ratio=%.2f\n", name, our_median, bare_median,
                    our_median / bare_median);
      }
    }
    communicator->Stop();
    events->Stop();
    agent.StopAndWait(true);
    bare_provider.StopAndWait(true);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_alarms: %s\n", error.what());
    return 1;
  }
  return 0;
}
