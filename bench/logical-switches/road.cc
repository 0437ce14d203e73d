#include "bench/logical-switches/road.h"

#include <mutex>
#include <stdexcept>

#include "app/zema/lswitch/covedb_update_task.h"
#include "app/zema/lswitch/db_svc_task_thread.h"
#include "app/zema/lswitch/logical_switch_batcher.h"
#include "covedbclient/statements.h"
#include "platform/core/thread.h"
#include "proto/covedb/runtime_objects.pb.h"

namespace zem::bench {
namespace {

namespace store = orlane::zem::covedb;

constexpr const char* kEndpoint = "tcp://127.0.0.1:2480";

}  // namespace

class Road::KeepingLum final : public zema::LumHandler {
 public:
  using LumHandler::LumHandler;

  int InvokeCommand(const std::string& command, const std::string& expected, std::string* out) override {
    Keep({static_cast<uint32_t>(zema::LumOperation::kTextCommand), command});
    return LumHandler::InvokeCommand(command, expected, out);
  }
  int InvokeRPC(zema::LumOperation operation, std::string_view data, std::string* out) override {
    Keep({static_cast<uint32_t>(operation), std::string(data)});
    return LumHandler::InvokeRPC(operation, data, out);
  }
  std::vector<Call> Take(Instant* first) {
    const std::lock_guard lock(mutex_);
    *first = first_;
    return std::exchange(calls_, {});
  }

 private:
  void Keep(Call call) {
    const std::lock_guard lock(mutex_);
    if (calls_.empty()) first_ = std::chrono::steady_clock::now();
    calls_.push_back(std::move(call));
  }

  std::mutex mutex_;  // guards all below
  std::vector<Call> calls_;
  Instant first_;
};

Road::Road(const zema::LumSettings& settings) : lum_(std::make_unique<KeepingLum>(settings)) {
  agent_.RunAsync(1);
  store_provider_.RunAsync(1);
  if (lum_->SetUp("user", "") != 0) throw std::runtime_error("the management proxy does not start");
  daemon_ = std::make_unique<sim::StoreDaemon>(store_provider_, kEndpoint, registry_);
  client_ =
      std::make_shared<covedb::CoveDbClient>("tarvik-agent", kEndpoint, agent_, nullptr, true, true, false);
  zema::CoveDbHandler::Settings handler;
  handler.client = client_;
  handler.timers = &agent_.timers();
  handler.retry_interval = [] { return 30; };
  handler.enqueue = [this](zema::CovedbUpdateKind kind, covedb::MonitorUpdateMsg update,
                           zema::CovedbOrigin origin) {
    zema::EnqueueCovedbUpdate(workers_, kind, std::move(update), origin);
  };
  handler_ = std::make_shared<zema::CoveDbHandler>(handler);
  SetApplyMax(1000);
  context_ = std::make_shared<zema::LogicalSwitchContext>(*lum_, handler_, *this, *this, workers_, identity_,
                                                          options_, state_, true);
  zema::WorkerFactory factory;
  factory.options = [] { return zema::WorkerOptions{.ls_msg_batch_interval = 5, .ls_msg_wait = 1}; };
  factory.ls_batcher = [this] { return std::make_unique<zema::LogicalSwitchMsgTask::Batcher>(context_); };
  factory.database_handler = [this](const std::string& name) {
    return std::make_unique<zema::DbSvcTaskThread>(name, context_);
  };
  workers_.SetFactory(std::move(factory));
  if (workers_.StartTaskThreads() != 0) throw std::runtime_error("the workers do not start");
}

void Road::SetApplyMax(int most) {
  zema::RealizationOptions options;
  options.opaque_network_apply_max = most;
  options_.Replace(std::move(options));
}

Road::~Road() {
  workers_.StopTaskThreads();
  workers_.DeleteTaskThreadObjects();
  client_.reset();
  agent_.StopAndWait(true);
  daemon_.reset();
  store_provider_.StopAndWait(true);
}

void Road::Change(const store::ModifyRequestMsg& request) {
  if (!daemon_->store().Modify({request}).ok()) throw std::runtime_error("the store refuses a change");
}

void Road::Connect() {
  client_->StartAsync();
  handler_->RegisterChannelStatus();
  handler_->ConfigureMonitors();
}

Road::Instant Road::WaitForBarrier(uint64_t barrier) {
  const Instant limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  store::GetRequestMsg request;
  request.add_object_request()->set_object_type(store::PROCESSED_BARRIER);
  while (std::chrono::steady_clock::now() < limit) {
    store::GetResponseMsg response;
    store::ProcessedBarrierMsg processed;
    if (daemon_->store().Get(request, &response).ok() && response.object_size() == 1 &&
        processed.ParseFromString(response.object(0).object()) && processed.value() == barrier) {
      return std::chrono::steady_clock::now();
    }
    SleepFor(std::chrono::milliseconds(1));
  }
  throw std::runtime_error("the barrier was not processed within a minute");
}

double Road::ReadAlone() {
  constexpr uint32_t kModule = 99;
  std::atomic<bool> complete{false};
  uint64_t updates = 0;
  const auto client =
      std::make_shared<covedb::CoveDbClient>("bare", kEndpoint, agent_, nullptr, true, true, false);
  client->RegisterMonitorCallback(
      kModule, [&updates](const covedb::MonitorUpdateMsg&) { ++updates; }, [&complete] { complete = true; },
      covedb::kDefaultVDb);
  client->ConfigureMonitor(
      covedb::MonitorStatementsFor(
          {store::OPAQUE_LOG_SWITCH_CONFIG, store::TRANSPORT_NODE_CONFIG, store::BARRIER, store::VIF_STATE}),
      {}, kModule, covedb::kDefaultVDb);
  const Instant begun = std::chrono::steady_clock::now();
  client->StartAsync();
  while (!complete) {
    if (std::chrono::steady_clock::now() - begun > std::chrono::minutes(1)) {
      throw std::runtime_error("the store was not read within a minute");
    }
    SleepFor(std::chrono::microseconds(500));
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
}

std::vector<Call> Road::TakeCalls(Instant* first) { return lum_->Take(first); }

}  // namespace zem::bench
