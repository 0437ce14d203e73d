#include "app/zema/app/zema_app.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <mutex>
#include <stdexcept>

#include "app/controller/controller_context.h"
#include "app/controller/controller_list_app.h"
#include "app/zema/app/host_config_callbacks.h"
#include "app/zema/app/host_config_state.h"
#include "app/zema/app/host_requests.h"
#include "app/zema/app/io_service.h"
#include "app/zema/app/message_dispatch.h"
#include "app/zema/app/realization.h"
#include "app/zema/app/set_up_state.h"
#include "app/zema/covedb/config_files.h"
#include "app/zema/covedb/covedb_handler.h"
#include "app/zema/covedb/covedb_op_task.h"
#include "app/zema/edge/edge_maintenance.h"
#include "app/zema/lswitch/covedb_update_task.h"
#include "app/zema/manager/manager_replies.h"
#include "app/zema/manager/manager_sender.h"
#include "app/zema/ports/vif_index.h"
#include "app/zema/state/health_record.h"
#include "app/zema/state/host_config_state.h"
#include "app/zema/state/realization_options.h"
#include "app/zema/workers/worker_table.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "framework/node/platform_info.h"
#include "framework/process/shutdown_pipe.h"
#include "framework/tasks/function_task.h"
#include "framework/tasks/thread.h"
#include "mpaclient/bus/bus_record.h"
#include "mpaclient/vertical/vertical_client.h"
#include "platform/core/condition.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/provider/work_group.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/switching/switching.pb.h"

namespace zem::Tarvik {
namespace {

namespace switching = orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr uint32_t kHostNodes = kNodeQub | kNodeKvm | kNodeBareMetalServer | kNodeBareMetalContainer;
constexpr uint32_t kEdgeNodes = kNodeEdge | kNodePublicCloudGateway;

constexpr const char* kHostConfigType = "com.orlane.zem.switching.HostConfigMsg";

constexpr const char* kNotStarted = "The realization has not started yet";

// The callback that keeps what operators see; behind those of the applications.
constexpr uint32_t kViewModule = 1000;

constexpr int kFirstRetryDelay = 30;  // seconds; doubled each time

// Managers from 2.5 on keep logical switches in the store.
bool KeepsLogicalSwitchesInStore(uint32_t major, uint32_t minor) {
  return major >= 3 || (major == 2 && minor > 4);
}

std::string HeaderBytes(const BusHeader& header) {
  const std::vector<uint8_t> bytes = header.Encode();
  return {bytes.begin(), bytes.end()};
}

}  // namespace

class ZemaApp::Impl {
 public:
  Impl(AsioZemProvider& provider, std::shared_ptr<covedb::CoveDbClientInterface> store);

  void Register();
  void StartHost();
  void StartEdge();
  void WaitStarted();
  void Stop(int reason);
  void Reset(std::function<void(std::string)> done);
  std::string ReloadOptions();
  std::string Migrate(bool vm_ports, bool knl_pnic);
  void Describe(std::vector<PartState>* parts) const;
  SwitchesView Switches() const;
  PortsView Ports(size_t most) const;

  AsioZemProvider& provider_;
  const std::shared_ptr<covedb::CoveDbClientInterface> store_client_;
  zema::HostConfigCallbacks callbacks_;

  mutable std::mutex mutex_;  // guards what follows up to the blank line
  Condition changed_;
  bool started_ = false;
  std::shared_ptr<zema::Realization> realization_;
  std::shared_ptr<zema::MessageDispatch> dispatch_;
  std::shared_ptr<Timer> controller_timer_;
  bool on_smart_nic_ = false;
  int attempts_ = 0;      // at the set-up
  int last_failure_ = 0;  // of the attempts
  TimePoint next_attempt_;
  SwitchesView switches_;

 private:
  void KeepView(const switching::HostConfigMsg& config);
  void StartUp();
  std::shared_ptr<controller::ControllerContext> MakeControllerContext();
  std::shared_ptr<zema::Realization> MakeRealization();
  std::shared_ptr<zema::Realization> realization() const;
  std::shared_ptr<zema::Realization> started_realization() const;
  void MakeDispatch(const std::shared_ptr<zema::Realization>& realization);
  void SetStarted();
  std::shared_ptr<zema::CoveDbHandler> GetCoveDbHandler();

  // Handlers of the manager's messages.
  void TakeClose();
  void TakeAck(uint32_t major, uint32_t minor);
  void TakePayload(const VerticalRecord& record);
  void TakeOnEdge(const VerticalRecord& record);

  zema::OptionsStore options_;
  zema::ConfigFiles files_;
  zema::HostConfigState state_;
  VerticalClient vertical_;
  zema::ManagerSender sender_;
  zema::ManagerReplies replies_{sender_};
  zema::IOService io_;      // its work uses the members above
  std::mutex store_mutex_;  // guards the handler's first use
  std::shared_ptr<zema::CoveDbHandler> store_;
  ControllerListApp controller_list_;
  std::unique_ptr<zema::Thread> start_up_;
  zema::EdgeMaintenance edge_maintenance_;
  const bool edge_;
};

ZemaApp::Impl::Impl(AsioZemProvider& provider, std::shared_ptr<covedb::CoveDbClientInterface> store)
    : provider_(provider),
      store_client_(std::move(store)),
      vertical_(provider, GetVertical(VerticalId::kSwitching),
                {.payload = [this](const VerticalRecord& record) { TakePayload(record); },
                 .opened = [this](uint32_t major, uint32_t minor) { TakeAck(major, minor); },
                 .closed = [this] { TakeClose(); },
                 .intercept =
                     [this](const VerticalRecord& record) {
                       if (!edge_ || record.type() == kRmqClientClose) return false;
                       TakeOnEdge(record);
                       return true;
                     }}),
      sender_(vertical_, options_),
      controller_list_(provider,
                       {[this] { return options_.Snapshot().controller_info; }, MakeControllerContext(),
                        [this](const VerticalRecord& record) {
                          if (edge_) TakeOnEdge(record);
                        }}),
      edge_maintenance_(zema::EdgeService(), replies_),
      edge_((GetNodeType() & kEdgeNodes) != 0) {
  callbacks_.Register(kViewModule, [this](const switching::HostConfigMsg& config) { KeepView(config); });
}

std::shared_ptr<controller::ControllerContext> ZemaApp::Impl::MakeControllerContext() {
  controller::ControllerFile::Settings file;
  file.wait = [](Duration duration) { return !WaitForShutdown(duration); };
  auto context = std::make_shared<controller::ControllerContext>(
      std::move(file), Host(), [](std::unique_ptr<Runnable> task) {
        zema::Workers().AddTask(zema::Worker::kController, std::move(task));
      });
  context->stored_node_id = [this]() -> std::optional<std::string> {
    switching::HostConfigMsg stored;
    std::string error;
    if (!files_.RetrieveHostConfigMsgFromFile(&stored, &error)) return std::nullopt;
    return stored.transport_node_id();
  };
  context->takes_request = [] { return zema::Workers().TakesRequest(zema::Worker::kController); };
  context->add_task_later = [this](Duration delay, std::function<std::unique_ptr<Runnable>()> make) {
    const std::lock_guard lock(mutex_);
    if (controller_timer_) controller_timer_->Cancel();
    controller_timer_ = provider_.timers().Schedule(delay, [make = std::move(make)] {
      if (auto task = make()) zema::Workers().AddTask(zema::Worker::kController, std::move(task));
    });
  };
  return context;
}

void ZemaApp::Impl::Register() {
  try {
    vertical_.Register();
  } catch (const std::exception& e) {
    ZLOG_TO(kLog, kLogError, "[%s] Error Registering %s to MPA: %s", "Start",
            GetVertical(VerticalId::kSwitching).name, e.what());
    throw;
  }
  if (!vertical_.registered()) {
    ZLOG_TO(kLog, kLogError, "[%s] Invalid MPA Client Stub", "Start");
    throw std::runtime_error("Invalid MPA Client Stub");
  }
  GetCoveDbHandler();
}

std::shared_ptr<zema::CoveDbHandler> ZemaApp::Impl::GetCoveDbHandler() {
  const std::lock_guard lock(store_mutex_);
  if (store_ == nullptr && store_client_ != nullptr) {
    ZLOG_INFO("Db handler is empty, creating a new one");
    zema::CoveDbHandler::Settings settings;
    settings.client = store_client_;
    settings.timers = &provider_.timers();
    settings.retry_interval = [this] { return options_.Snapshot().ls_db_retry_interval; };
    settings.enqueue = [](zema::CovedbUpdateKind kind, covedb::MonitorUpdateMsg update,
                          zema::CovedbOrigin origin) {
      zema::EnqueueCovedbUpdate(zema::Workers(), kind, std::move(update), origin);
    };
    if (edge_) {
      settings.maintenance_action = [this](const RawBusMessage& request) {
        edge_maintenance_.Apply(request);
      };
    }
    store_ = std::make_shared<zema::CoveDbHandler>(std::move(settings));
  }
  return store_;
}

void ZemaApp::Impl::StartHost() {
  start_up_ = std::make_unique<zema::Thread>(true, std::make_unique<FunctionTask>([this] { StartUp(); }), 0);
  start_up_->Start();
}

void ZemaApp::Impl::StartEdge() {
  if (options_.Parse({}, {}) != 0) ZLOG_WARN("ParseOptions failed before starting ControllerListApp");
  if (zema::StartControllerTaskThread() != 0 || zema::StartHostSyncTaskThread() != 0) {
    throw std::runtime_error("failed to start the threads of the controller list");
  }
  if (const auto store = GetCoveDbHandler()) store->ConfigureMonitors();
  vertical_.Start();
  controller_list_.Start();
  SetStarted();
}

std::shared_ptr<zema::Realization> ZemaApp::Impl::MakeRealization() {
  zema::Realization::Settings settings;
  settings.sender = &replies_;
  settings.vif_sender = &sender_;
  settings.options = &options_;
  settings.files = &files_;
  settings.state = &state_;
  settings.workers = &zema::Workers();
  settings.timers = &provider_.timers();
  settings.store = GetCoveDbHandler();
  settings.controllers = &controller_list_;
  settings.callbacks = &callbacks_;
  return std::make_shared<zema::Realization>(std::move(settings));
}

std::shared_ptr<zema::Realization> ZemaApp::Impl::realization() const {
  const std::lock_guard lock(mutex_);
  return realization_;
}

namespace {

// An exception is one more reason to try again: if it ended the daemon, the next start would meet the same
// failure.
int SetUpOf(zema::Realization& realization) {
  try {
    return realization.SetUp();
  } catch (const std::exception& e) {
    ZLOG_ERROR("41517", "[%s] the set-up caught exception: %s", "StartUpTask", e.what());
    return zema::Realization::kNoWorkers;
  }
}

}  // namespace

// Repeats the set-up until it succeeds or the daemon stops.
void ZemaApp::Impl::StartUp() {
  for (int delay = kFirstRetryDelay;; delay *= 2) {
    auto realization = MakeRealization();
    {
      const std::lock_guard lock(mutex_);
      realization_ = realization;
    }
    {
      const std::lock_guard lock(mutex_);
      ++attempts_;
      next_attempt_ = TimePoint();
    }
    const int result = SetUpOf(*realization);
    if (ShutdownRequested()) {
      ZLOG_INFO("[%s] Agent is shutting down, abort zemaApp start ", "StartUpTask");
      return;
    }
    if (result == zema::Realization::kDone) {
      MakeDispatch(realization);
      break;
    }
    ZLOG_WARN("[%s] Zema App start failed, retrying in %d seconds...", "StartUpTask", delay);
    realization->Stop(result);
    zema::DeleteTaskThreadObjects();
    {
      const std::lock_guard lock(mutex_);
      realization_.reset();
      last_failure_ = result;
      next_attempt_ = Clock::Process().Now() + std::chrono::seconds(delay);
    }
    realization.reset();
    if (WaitForShutdown(std::chrono::seconds(delay))) return;
  }
  if (const auto store = GetCoveDbHandler()) store->RegisterChannelStatus();
  vertical_.Start();
  try {
    controller_list_.Start();
  } catch (const std::exception& e) {
    ZLOG_ERROR("41517", "[%s] the controller list cannot be served: %s", "StartUpTask", e.what());
  }
  SetStarted();
}

void ZemaApp::Impl::MakeDispatch(const std::shared_ptr<zema::Realization>& realization) {
  auto dispatch = std::make_shared<zema::MessageDispatch>(
      replies_, zema::Workers(), std::make_shared<zema::HostRequests>(realization, replies_, files_, io_));
  const std::lock_guard lock(mutex_);
  dispatch_ = std::move(dispatch);
}

void ZemaApp::Impl::SetStarted() {
  const bool on_smart_nic = options_.Snapshot().on_smart_nic;
  const std::lock_guard lock(mutex_);
  on_smart_nic_ = on_smart_nic;
  started_ = true;
  changed_.NotifyAll();
}

void ZemaApp::Impl::WaitStarted() {
  // A shutdown does not notify this condition variable, so the loop checks for it every second.
  std::unique_lock lock(mutex_);
  while (!started_ && !ShutdownRequested())
    changed_.WaitFor(lock, std::chrono::seconds(1), [this] { return started_; });
}

void ZemaApp::Impl::Stop(int reason) {
  // A set-up that is running ends by itself when the daemon shuts down.
  if (start_up_ != nullptr) start_up_->Join();
  controller_list_.Stop();
  if (const auto current = realization()) {
    current->Stop(reason);
  } else {
    zema::SetZemaShutDown();
    if (edge_) zema::StopTaskThreads();
  }
  if (reason == 0) io_.Stop();
  vertical_.Stop();
  {
    const std::lock_guard lock(mutex_);
    dispatch_.reset();
    if (controller_timer_) controller_timer_->Cancel();
  }
  zema::DeleteTaskThreadObjects();
  if (reason == 0) Host().Forget();
}

// --- Messages of the manager.

void ZemaApp::Impl::TakeClose() {
  if (const auto current = realization(); current && current->health() != nullptr) {
    current->health()->mpaDisconnected();
  }
}

void ZemaApp::Impl::TakeAck(uint32_t major, uint32_t minor) {
  if (const auto current = realization(); current && current->health() != nullptr) {
    current->health()->mpaConnected();
  }
  if (!KeepsLogicalSwitchesInStore(major, minor)) {
    ZLOG_INFO("[%s] Skip registering for Db events, Appliance version [%u].[%u]", "ZemaAppRxCallback", major,
              minor);
    return;
  }
  ZLOG_INFO("[%s] Registering for Db events. Appliance version [%u].[%u]", "ZemaAppRxCallback", major, minor);
  if (const auto store = GetCoveDbHandler()) store->ConfigureMonitors();
}

void ZemaApp::Impl::TakePayload(const VerticalRecord& record) {
  std::shared_ptr<zema::MessageDispatch> dispatch;
  {
    const std::lock_guard lock(mutex_);
    dispatch = dispatch_;
  }
  if (dispatch == nullptr) return;
  const BusHeader& header = record.header;
  if (header.vdr_request_id) {
    ZLOG_DEBUG("[%s] request [%" PRId64 "] of the router", "ZemaAppRxCallback", *header.vdr_request_id);
  }
  dispatch->ProcessReceiveMessages(header.session_id + ":" + header.message_id, header.type_id,
                                   record.payload(), header.correlation_id, header.reply_to,
                                   HeaderBytes(header));
}

// An edge writes each message to the store, where other processes read it.
void ZemaApp::Impl::TakeOnEdge(const VerticalRecord& record) {
  const auto store = GetCoveDbHandler();
  if (record.raw.payload == nullptr || store == nullptr) return;
  const BusHeader& header = record.header;
  RawBusMessage raw;
  raw.type = header.type_id;
  raw.header = HeaderBytes(header);
  raw.payload = record.payload();
  raw.correlation_id = header.correlation_id;
  raw.reply_to = header.reply_to;
  const std::string payload = raw.payload;
  zema::Workers().AddTask(zema::Worker::kHostSync,
                          std::make_unique<zema::CoveDbOpTask>(store, std::move(raw)));
  if (header.type_id != kHostConfigType) return;
  switching::HostConfigMsg config;
  if (!config.ParseFromString(payload)) {
    ZLOG_ERROR("41512", "[%s] Failed to parse HostConfigMsg message\n", __func__);
    return;
  }
  switching::HostConfigAckMsg ack;
  ack.set_transport_node_id(config.transport_node_id());
  ack.set_id(config.id());
  ack.set_revision(config.revision());
  ZLOG_INFO("Sending host config reply for EDGE platform [%s]", ack.ShortDebugString().c_str());
  io_.Post([this, reply_to = header.reply_to, ack] { replies_.SendHostConfigAckMsg(reply_to, ack); });
  if (config.has_transport_node_id()) {
    controller_list_.UpdateTnUuidInFile(config.transport_node_id());
    Host().SetHostId(config.transport_node_id());
  }
  callbacks_.Call(config);
}

// --- Requests of operators.

std::shared_ptr<zema::Realization> ZemaApp::Impl::started_realization() const {
  const std::lock_guard lock(mutex_);
  return started_ ? realization_ : nullptr;
}

void ZemaApp::Impl::Reset(std::function<void(std::string)> done) {
  const auto current = started_realization();
  if (current == nullptr) {
    done(kNotStarted);
    return;
  }
  zema::Workers().AddTask(zema::Worker::kHostSync,
                          std::make_unique<FunctionTask>([current, done = std::move(done)] {
                            done(current->HostSwitchAndLSCleanup(true));
                          }));
}

std::string ZemaApp::Impl::Migrate(bool vm_ports, bool knl_pnic) {
  const auto current = started_realization();
  if (current == nullptr) return kNotStarted;
  const bool taken =
      zema::Workers().AddTask(zema::Worker::kHostSync, current->MakeVnicMigrationTask(vm_ports, knl_pnic));
  return taken ? "" : "There is no thread for host configurations";
}

std::string ZemaApp::Impl::ReloadOptions() { return options_.Reload(); }

// --- What operators see.

void ZemaApp::Impl::KeepView(const switching::HostConfigMsg& config) {
  SwitchesView view;
  view.known = true;
  view.config_id = config.id();
  view.revision = config.revision();
  for (const switching::HostSwitchMsg& message : config.host_switches()) {
    SwitchView host_switch;
    host_switch.id = message.id();
    host_switch.name = message.name();
    host_switch.mode = switching::HostSwitchMsg::SwitchMode_Name(message.switch_mode());
    host_switch.mtu = message.mtu();
    for (const auto& pnic : message.pnic()) host_switch.uplinks.push_back(pnic.device_name());
    for (const auto& endpoint : message.vteps()) host_switch.endpoints.push_back(endpoint.device_name());
    view.switches.push_back(std::move(host_switch));
  }
  const std::lock_guard lock(mutex_);
  switches_ = std::move(view);
}

SwitchesView ZemaApp::Impl::Switches() const {
  SwitchesView view;
  {
    const std::lock_guard lock(mutex_);
    view = switches_;
  }
  return view;
}

PortsView ZemaApp::Impl::Ports(size_t most) const {
  PortsView view;
  const auto current = started_realization();
  const zema::VifIndex* const index = current ? current->vif_index() : nullptr;
  if (index == nullptr) return view;
  const auto holdings = index->Holdings(most);
  if (!holdings) return view;
  view.known = true;
  view.total = std::max(index->size(), holdings->size());
  for (const auto& [vif, at] : *holdings) view.ports.push_back({vif, at.dvs, at.port});
  return view;
}

void ZemaApp::Impl::Describe(std::vector<PartState>* parts) const {
  PartState set_up{"realization", {}, {}};
  {
    const std::lock_guard lock(mutex_);
    if (!started_) set_up = SetUpState(attempts_, last_failure_, next_attempt_);
  }
  const bool done = set_up.fault.empty();
  parts->push_back(std::move(set_up));
  const auto current = done ? started_realization() : nullptr;
  if (current == nullptr || current->health() == nullptr) return;
  zema::HealthRecord& health = *current->health();
  parts->push_back(
      health.lum_ready()
          ? PartState{"host management script", {}, {}}
          : PartState{"host management script", "does not answer",
                      "the daemon starts it again by itself; look for its last lines in the log"});
  if (!on_smart_nic_) {
    parts->push_back(health.opaque_socket_connected()
                         ? PartState{"host management link", {}, {}}
                         : PartState{"host management link", "the host's management daemon is not connected",
                                     "that daemon connects by itself when it runs; look whether it does"});
  }
  parts->push_back(HostConfigState());
  if (health.in_tn_mmode()) {
    parts->push_back({"maintenance mode", "the manager has put this node into maintenance mode",
                      "the manager takes it out again"});
  }
  if (health.status_down()) {
    parts->push_back({"node status", "the last configuration shows this host as down",
                      "a configuration of the manager that shows it as up"});
  }
}

ZemaApp::ZemaApp(AsioZemProvider& provider, boost::intrusive_ptr<WorkGroup>,
                 std::shared_ptr<covedb::CoveDbClientInterface> store)
    : impl_(std::make_unique<Impl>(provider, std::move(store))) {}

ZemaApp::~ZemaApp() = default;

int ZemaApp::Start(bool, bool, bool) {
  impl_->Register();
  const uint32_t node = GetNodeType();
  if ((node & kHostNodes) != 0) {
    impl_->StartHost();
  } else if ((node & kEdgeNodes) != 0) {
    impl_->StartEdge();
  } else {
    ZLOG_INFO("[%s] Unknown Platform", __func__);
  }
  return 0;
}

void ZemaApp::WaitStarted() { impl_->WaitStarted(); }

bool ZemaApp::started() const {
  const std::lock_guard lock(impl_->mutex_);
  return impl_->started_;
}

void ZemaApp::Stop(int reason) { impl_->Stop(reason); }

void ZemaApp::RegisterHostCfgMsgCallBack(uint32_t module_id, HostConfigCallback callback) {
  impl_->callbacks_.Register(module_id, std::move(callback));
}

void ZemaApp::Reset(std::function<void(std::string)> done) { impl_->Reset(std::move(done)); }

void ZemaApp::Describe(std::vector<PartState>* parts) const { impl_->Describe(parts); }
SwitchesView ZemaApp::Switches() const { return impl_->Switches(); }
PortsView ZemaApp::Ports(size_t most) const { return impl_->Ports(most); }

std::string ZemaApp::ReloadOptions() { return impl_->ReloadOptions(); }

std::string ZemaApp::Migrate(bool vm_ports, bool knl_pnic) { return impl_->Migrate(vm_ports, knl_pnic); }

}  // namespace zem::Tarvik
