#include "app/zema/app/realization.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "app/zema/app/follow_ups.h"
#include "app/zema/app/host_config_callbacks.h"
#include "app/zema/covedb/config_files.h"
#include "app/zema/endpoint/endpoint_context.h"
#include "app/zema/host/corvd_handler.h"
#include "app/zema/host/host_management_slot.h"
#include "app/zema/hostconfig/host_config_context.h"
#include "app/zema/hostconfig/host_config_task_qub.h"
#include "app/zema/hostconfig/mmode_config_task.h"
#include "app/zema/hostconfig/router_reconnection.h"
#include "app/zema/hostlib/config_ops_manager.h"
#include "app/zema/hostlib/endpoint_library.h"
#include "app/zema/hostlib/router_library.h"
#include "app/zema/hostlib/switch_health_publisher.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/hostlib/vtep_ha_profile.h"
#include "app/zema/hostswitch/high_performance_profile.h"
#include "app/zema/hostswitch/library_settings.h"
#include "app/zema/hostswitch/router_ports.h"
#include "app/zema/hostswitch/stateless_host.h"
#include "app/zema/lswitch/db_svc_task_thread.h"
#include "app/zema/lswitch/logical_switch_ack_task.h"
#include "app/zema/lswitch/logical_switch_batcher.h"
#include "app/zema/lswitch/logical_switch_context.h"
#include "app/zema/lswitch/logical_switch_full_sync_task.h"
#include "app/zema/lswitch/port_adapters.h"
#include "app/zema/manager/manager_sender.h"
#include "app/zema/manager/zem_manager.h"
#include "app/zema/migration/migration_record.h"
#include "app/zema/migration_files/vnic_migration_task.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/proxy/error_sink.h"
#include "app/zema/proxy/host_switch_lists.h"
#include "app/zema/proxy/lum_handler.h"
#include "app/zema/resync/scale_sim_task.h"
#include "app/zema/state/health_record.h"
#include "app/zema/state/host_config_state.h"
#include "app/zema/state/version_info.h"
#include "app/zema/vif/precreated_port_maker.h"
#include "app/zema/vifqueue/resync_state.h"
#include "app/zema/vifqueue/vif_port_handler.h"
#include "app/zema/workers/worker_table.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "framework/node/platform_info.h"
#include "framework/process/atomic_file.h"
#include "framework/process/command.h"
#include "framework/process/own_folder.h"
#include "framework/process/shutdown_pipe.h"
#include "framework/tasks/thread_log_context.h"
#include "platform/core/stop_signal.h"
#include "platform/provider/timer.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;

constexpr size_t kMaxBackup = 64 * 1024 * 1024;
constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kUser = "zemuser";
// The script expects a third login text but does not use it.
constexpr const char* kThirdLoginText = "";
constexpr const char* kRemovePermission =
    "python /usr/lib64/orlane/zem-tarvik/pylum/zema/setZemUserPermission.py --remove";
constexpr const char* kDeleteUser = "/usr/lib/orlane/auth/bin/deluser ";

// A host that fails to answer three times is not ready; the data is then read again when it is first needed.
constexpr int kAnswerTries = 3;
constexpr Duration kAnswerPause = std::chrono::seconds(1);

void InstallSignalDispositions() {
  for (const int number : {SIGPIPE, SIGHUP, SIGTSTP, SIGCONT, SIGUSR2, SIGUSR1}) std::signal(number, SIG_IGN);
  std::signal(SIGCHLD, SIG_DFL);
}

}  // namespace

class Realization::Impl {
 public:
  explicit Impl(Settings settings) : settings_(std::move(settings)) {}
  ~Impl();

  Result SetUp();
  void Stop(int reason);
  std::string CleanUpSwitches(bool force);

  const Settings settings_;
  VersionInfo version_;
  StopSignal stopping_;
  MigrationRecord migration_;
  ResyncState resync_state_;
  HostManagementSlot host_management_;

  // In order of creation.
  std::unique_ptr<SwitchLibrary> library_;
  std::unique_ptr<EndpointLibrary> endpoints_;
  std::unique_ptr<RouterLibrary> router_library_;
  std::unique_ptr<PortOpsManager> ports_;
  std::unique_ptr<ConfigOpsManager> switches_;
  std::unique_ptr<RouterPorts> routers_;
  std::unique_ptr<SwitchHealthPublisher> publisher_;
  std::unique_ptr<HealthRecord> health_;
  std::shared_ptr<ZemManager> manager_;
  std::unique_ptr<LumHandler> lum_;
  std::unique_ptr<HighPerformanceProfile> high_performance_;
  std::unique_ptr<FollowUps> follow_ups_;
  std::unique_ptr<PortZoneKinds> kinds_;
  std::unique_ptr<PortVifStates> vif_states_;
  std::shared_ptr<HostConfigContext> host_config_;
  std::shared_ptr<LogicalSwitchContext> logical_switches_;
  std::shared_ptr<EndpointContext> endpoint_tasks_;
  std::shared_ptr<MmodeContext> mmode_;
  Synchronizable port_lock_;
  StopSignal vifs_end_;
  std::shared_ptr<VifContext> vifs_;

 private:
  bool OpenLibraries();
  void MakeManagers();
  bool Pause(Duration duration);
  LumSettings MakeLumSettings();
  void CleanUp();
  WorkerFactory Factory();
  void PrepareHost();
  void RestoreHostSwitch();
  void ReadStoredConfig();
  void ResumeFollowUps(const switching::HostConfigMsg& stored);
  void SimulateLoad();
};

Realization::Impl::~Impl() = default;

Realization::Result Realization::Impl::SetUp() {
  SetThreadLogContext("MainThread");
  if (!InitVersionInfo(&RunShell, &version_)) return kHostUnknown;
  if (settings_.options->Parse({}, version_.host) != 0) {
    ZLOG_TO(kLog, kLogError, "zemaApp failed to initialize configuration...");
    return kBadOptions;
  }
  if (!OpenLibraries()) return kNoSwitchLibrary;
  MakeManagers();
  const RealizationOptions options = settings_.options->Snapshot();
  if (options.clear) {
    CleanUp();
    return kClearMode;
  }
  if (lum_->SetUp(kUser, kThirdLoginText) != 0) {
    ZLOG_ERROR("41504", "[%s] failed to start lumHandler", __func__);
    return kNoProxy;
  }
  lum_->StartWatching();
  InstallSignalDispositions();
  // Restored before any VIF request is served: a VM must not attach to a node in maintenance mode just
  // because the start is slow.
  RestoreMmode(*mmode_);
  settings_.workers->SetFactory(Factory());
  if (settings_.workers->StartSwitchHandler() != 0) return kNoSwitchHandler;
  if (settings_.workers->StartTaskThreads() != 0) return kNoWorkers;
  PrepareHost();
  RestoreHostSwitch();
  FinishHostConfig(host_config_);
  health_->mpaDisconnected();
  ReadStoredConfig();
  // The manager still waits for the data that is written onto these ports.
  for (const auto& [vif, request] : *ports_->site_configs().VifsForSiteConfig()) {
    host_management_.AddRequest(std::make_shared<VifRequest>(*request));
  }
  SimulateLoad();
  return kDone;
}

// The worker for simulated load exists only when the options ask for it.
void Realization::Impl::SimulateLoad() {
  if (settings_.workers->Find(Worker::kScaleSim) == nullptr) return;
  settings_.workers->AddTask(
      Worker::kScaleSim,
      std::make_unique<ScaleSimTask>(ScaleSimTask::Settings{
          health_.get(), &Host(), settings_.options,
          [this](std::shared_ptr<VifRequest> request) { host_management_.AddRequest(std::move(request)); },
          [this](Duration duration) { return Pause(duration); }}));
}

bool Realization::Impl::OpenLibraries() {
  ZLOG_INFO("Initializing ops manager");
  library_ = std::make_unique<SwitchLibrary>();
  endpoints_ = std::make_unique<EndpointLibrary>();
  router_library_ = std::make_unique<RouterLibrary>();
  ZLOG_INFO("Initializing ops manager handle to libkln");
  std::string error;
  if (!library_->Open(&error)) {
    ZLOG_ERROR("44201", "Error in opening switch library [%s]", error.c_str());
    return false;
  }
  // Not every host has endpoints and routers: the operations that need these libraries fail with an error of
  // their own.
  if (!endpoints_->Open(&error)) ZLOG_WARN("Error in opening endpoint library [%s]", error.c_str());
  if (!router_library_->Open(&error)) ZLOG_WARN("Error in opening router library [%s]", error.c_str());
  return true;
}

void Realization::Impl::MakeManagers() {
  OptionsStore* const options = settings_.options;
  switches_ = std::make_unique<ConfigOpsManager>(*library_);
  publisher_ = std::make_unique<SwitchHealthPublisher>(*switches_);
  health_ = std::make_unique<HealthRecord>(*publisher_, options->Snapshot().on_smart_nic);
  manager_ = std::make_shared<ZemManager>(*settings_.vif_sender, Host(), *options);
  lum_ = std::make_unique<LumHandler>(MakeLumSettings());
  ports_ = std::make_unique<PortOpsManager>(*library_, *lum_, Host());
  routers_ = std::make_unique<RouterPorts>(*router_library_);
  high_performance_ = std::make_unique<HighPerformanceProfile>(HighPerformanceProperties(*switches_));
  mmode_ =
      std::make_shared<MmodeContext>(MmodeContext{*lum_, *settings_.files, *health_, *manager_, &RunShell});
  endpoint_tasks_ = std::make_shared<EndpointContext>(*lum_, *endpoints_, Host(), *settings_.workers,
                                                      *options, settings_.sender,
                                                      [this](Duration duration) { return Pause(duration); });
  const auto pause = [this](Duration duration) { return Pause(duration); };
  follow_ups_ = std::make_unique<FollowUps>(
      FollowUps::Settings{*settings_.workers, *settings_.timers, *lum_, *manager_, *health_,
                          *settings_.callbacks, host_management_, settings_.controllers, endpoint_tasks_,
                          *settings_.files, *options, *ports_, *high_performance_, settings_.sender, pause});
  host_config_ = std::make_shared<HostConfigContext>(
      HostConfigContext{*lum_, *library_, *ports_, *switches_, *routers_, *endpoints_, *high_performance_,
                        migration_, *health_, Host(), *options, *settings_.files, settings_.store.get(),
                        *settings_.state, *follow_ups_, pause, port_lock_});
  vifs_ = std::make_shared<VifContext>(VifContext{*ports_, *manager_, *lum_, Host(), port_lock_, vifs_end_});
  kinds_ = std::make_unique<PortZoneKinds>(ports_->zones());
  vif_states_ = std::make_unique<PortVifStates>(
      ports_->site_configs(),
      [this](std::shared_ptr<VifRequest> request) { host_management_.AddRequest(std::move(request)); });
  logical_switches_ = std::make_shared<LogicalSwitchContext>(
      *lum_, settings_.store, *kinds_, *vif_states_, *settings_.workers, Host(), *options, *settings_.state,
      (Tarvik::GetNodeType() & Tarvik::kNodeQub) != 0);
  logical_switches_->sender = settings_.sender;
}

// Returns false before the time is up when the agent stops or this start is given up.
bool Realization::Impl::Pause(Duration duration) {
  constexpr Duration kSlice = std::chrono::seconds(1);
  for (Duration slept{0}; slept < duration; slept += kSlice) {
    if (stopping_.stopped() || Tarvik::WaitForShutdown(std::min(kSlice, duration - slept))) return false;
  }
  return !stopping_.stopped();
}

LumSettings Realization::Impl::MakeLumSettings() {
  LumSettings lum;
  lum.options = [options = settings_.options] {
    const RealizationOptions all = options->Snapshot();
    return LumOptions{all.max_retry_zema_lum_ready, all.log_level, all.no_vxlan_stack == "true"};
  };
  lum.host_version = version_.host.version;
  lum.shutting_down = [] { return Tarvik::ShutdownRequested(); };
  lum.set_ready = [health = health_.get()](bool ready) {
    ready ? health->setZemaLumReady() : health->setZemaLumNotReady();
  };
  return lum;
}

WorkerFactory Realization::Impl::Factory() {
  WorkerFactory factory;
  factory.options = [options = settings_.options] {
    const RealizationOptions all = options->Snapshot();
    return WorkerOptions{all.ls_ack_batch_interval, all.ls_incoming_wait_in_batch, all.ls_msg_batch_interval,
                         all.ls_msg_incoming_wait_in_batch,
                         all.scale_simulation_state == "enabled" && all.scale_simulation_num_lp >= 1 &&
                             !all.scale_simulation_ls_list.empty()};
  };
  factory.ls_ack_batcher = [] { return std::make_unique<LogicalSwitchBatchMsgTask>(); };
  factory.ls_batcher = [context = logical_switches_] {
    return std::make_unique<LogicalSwitchMsgTask::Batcher>(context);
  };
  factory.database_handler = [context = logical_switches_](const std::string& name) {
    return std::make_unique<DbSvcTaskThread>(name, context);
  };
  factory.switch_handler = [this] {
    auto handler = std::make_unique<CorvdHandler>(
        *health_, std::make_unique<VifPortHandler>(
                      vifs_, VifPortHandler::Surroundings{*settings_.vif_sender, migration_, resync_state_,
                                                          *health_, *settings_.options}));
    handler->ServeVnics();
    handler->ServeResync({health_.get(), &Host(), &resync_state_, settings_.options, &ports_->holders()});
    host_management_.Set(handler.get());
    return handler;
  };
  return factory;
}

// Reads the state of the host before the agent changes anything on it.
void Realization::Impl::PrepareHost() {
  const auto until_answered = [this](auto&& ask) {
    for (int tries = 1; !ask() && tries < kAnswerTries && Pause(kAnswerPause); ++tries) {
    }
  };
  until_answered([this] { return ports_->zones().CacheTzToDvsMapping(); });
  until_answered([this] { return ports_->site_configs().GetVifsForSiteConfig(); });
  UpdateCacheMap(*host_config_);
  std::string error;
  const auto switches = GetDvsUuids(*lum_, false, DvsStatus(*switches_), &error);
  if (switches) {
    ReconnectRoutersAtStart(*host_config_, *switches);
  } else {
    ZLOG_ERROR("42009", "[%s] %s", __func__, error.c_str());
  }
  std::string reply;
  if (lum_->InvokeCommand("createSpfPorts()", "ok", &reply) != LumCommands::kSucceeded) {
    ZLOG_ERROR("42009", "Create spf port failed, reply = [%s]", reply.c_str());
  }
  if (lum_->InvokeCommand("EnableTraceflow()", "ok", &reply) != LumCommands::kSucceeded) {
    ZLOG_ERROR("42009", "Enable traceflow failed, reply = [%s]", reply.c_str());
  }
}

void Realization::Impl::RestoreHostSwitch() {
  if (OthersWriteBeside(settings_.backup_file)) {
    ZLOG_ERROR("41531", "[%s] The backup %s is not read: others may write in its folder", __func__,
               settings_.backup_file.c_str());
    return;
  }
  std::string bytes;
  if (ReadFileWhole(settings_.backup_file, kMaxBackup, &bytes) != 0) {
    ZLOG_INFO("Could not find backup host config - not an upgrade");
    return;
  }
  switching::HostConfigMsg backup;
  if (!backup.ParseFromString(bytes)) {
    ZLOG_INFO("Error: Could not parse backup host config");
    return;
  }
  const std::string text = backup.ShortDebugString();
  if (text.empty()) {
    ZLOG_ERROR("41531", "[%s] HostConfigMsg retrieved from backup is empty", __func__);
    return;
  }
  ZLOG_INFO("Upgrading - restoring backup HostConfigMsg [%s]", text.c_str());
  try {
    HostConfigTaskQub task(host_config_, nullptr, "", "", std::move(backup), HostConfigTaskQub::InStore::kNo,
                           "");
    task.ApplyHostConfig(true, false);
  } catch (const std::exception&) {
    ZLOG_ERROR("41531", "[%s] ApplyHostConfig caught exception", __func__);
  }
  std::remove(settings_.backup_saved.c_str());
  if (std::rename(settings_.backup_file.c_str(), settings_.backup_saved.c_str()) != 0) {
    ZLOG_WARN("[%s] The backup host config stays in place: %s", __func__, std::strerror(errno));
  }
}

void Realization::Impl::ReadStoredConfig() {
  if (!settings_.files->HasHostConfigFile()) {
    ZLOG_INFO("No HostConfigMsg found on disk during startup\n");
    return;
  }
  switching::HostConfigMsg stored;
  std::string error;
  if (!settings_.files->RetrieveHostConfigMsgFromFile(&stored, &error)) {
    ZLOG_INFO("HostConfigMsg could not be read from disk during startup: [%s]\n", error.c_str());
    return;
  }
  ZLOG_INFO("HostConfigMsg found on disk during startup: [%s]\n", stored.ShortDebugString().c_str());
  ProcessVtepHAProfileAndIgnoreErrors(*endpoints_, stored);
  settings_.callbacks->Call(stored);
  ResumeFollowUps(stored);
}

// Resumes, once, the follow-ups of the stored configuration that were lost when the agent ended.
void Realization::Impl::ResumeFollowUps(const switching::HostConfigMsg& stored) {
  const bool pending =
      std::any_of(stored.host_switches().begin(), stored.host_switches().end(), [this](const auto& each) {
        std::string value;
        return ports_->properties().GetHostConfigProp(each.id(), kPendingUserActions, &value) == 0 &&
               value.starts_with(kMaintenanceModeAction);
      });
  if (pending) follow_ups_->ApplyHighPerformanceProfile();
  ErrorSink told;
  bool unused = false;
  if (!CheckQUBiVersion70AndUnusedCkln(*lum_, told, &unused) || !unused) return;
  const RealizationOptions options = settings_.options->Snapshot();
  follow_ups_->HotSwapUnusedCkln(options.ckln_hot_swap_init_delay, options.ckln_hot_swap_retry_interval);
}

// The agent is being removed from this host: removes its switches and its user.
void Realization::Impl::CleanUp() {
  if (lum_->SetUp(kUser, kThirdLoginText) != 0) {
    ZLOG_ERROR("42074", "[%s] Failed to cleanup HostSwitches on host: %s", __func__,
               "failed to start lumHandler");
  } else {
    CleanUpSwitches(settings_.options->Snapshot().force);
  }
  std::string error;
  if (Tarvik::Util::ExecuteCmd(kRemovePermission, "", &error) != 0) {
    ZLOG_ERROR("42052", "[%s] remove permission failed: cmd = [%s] error = [%s]\n", __func__,
               kRemovePermission, error.c_str());
  } else {
    ZLOG_INFO("[%s] remove permission \n", __func__);
  }
  if (Tarvik::Util::ExecuteCmd(std::string(kDeleteUser) + kUser, "", &error) != 0) {
    ZLOG_ERROR("42050", "[%s] delete user [%s] failed: [%s]\n", __func__, kUser, error.c_str());
  } else {
    ZLOG_INFO("[%s] deleted user [%s]\n", __func__, kUser);
  }
}

std::string Realization::Impl::CleanUpSwitches(bool force) {
  const std::string error = RemoveHostSwitches(host_config_);
  if (!error.empty()) {
    ZLOG_ERROR("42074", "[%s] Failed to cleanup HostSwitches on host: %s", "HostSwitchAndLSCleanup",
               error.c_str());
    return error;
  }
  return force ? MP_RemoveAllLogicalSwitches(logical_switches_) : std::string();
}

void Realization::Impl::Stop(int reason) {
  if (reason == kDone) settings_.workers->SetZemaShutDown();
  stopping_.Stop();
  if (logical_switches_) logical_switches_->fence.Close();
  if (follow_ups_) follow_ups_->Stop();
  if (health_) health_->setShuttingDown();
  host_management_.Set(nullptr);
  switch (reason) {
    case kHostUnknown:
    case kBadOptions:
    case kNoProxy:
    case kNoSwitchLibrary:
      ZLOG_INFO("[%s] Skip stopping HostHandler and Task threads", __func__);
      break;
    case kNoSwitchHandler:
      settings_.workers->StopSwitchHandler();
      ZLOG_INFO("[%s] Skip stopping Task threads", __func__);
      break;
    default:
      settings_.workers->StopSwitchHandler();
      settings_.workers->StopTaskThreads();
  }
  if (lum_) {
    ZLOG_INFO("[%s] terminating zemaLum.py...", __func__);
    lum_->TerminateZemaLumPy();
  }
}

Realization::Realization(Settings settings) : impl_(std::make_unique<Impl>(std::move(settings))) {}

Realization::~Realization() = default;

Realization::Result Realization::SetUp() { return impl_->SetUp(); }

void Realization::Stop(int reason) { impl_->Stop(reason); }

HealthRecord* Realization::health() { return impl_->health_.get(); }

const VifIndex* Realization::vif_index() {
  return impl_->ports_ == nullptr ? nullptr : &impl_->ports_->index();
}

std::shared_ptr<HostConfigContext> Realization::host_config() { return impl_->host_config_; }

std::shared_ptr<LogicalSwitchContext> Realization::logical_switches() { return impl_->logical_switches_; }

std::shared_ptr<MmodeContext> Realization::mmode() { return impl_->mmode_; }

void Realization::AddVifRequest(std::shared_ptr<VifRequest> request) {
  impl_->host_management_.AddRequest(std::move(request));
}

std::shared_ptr<EndpointContext> Realization::endpoints() { return impl_->endpoint_tasks_; }

void Realization::SetVifResult(const std::string& rpc_id, std::unique_ptr<PortAttached> result) {
  if (impl_->manager_) impl_->manager_->SetResultToPendingRPC(rpc_id, std::move(result));
}

std::string Realization::HostSwitchAndLSCleanup(bool force) { return impl_->CleanUpSwitches(force); }

std::unique_ptr<Runnable> Realization::MakeVnicMigrationTask(bool vm_ports, bool knl_pnic) {
  VnicMigrationTask::Settings settings;
  settings.create_ports = [vifs = impl_->vifs_](VmPortMap& ports) {
    return PrecreatedPortMaker(*vifs).CreatePorts(ports);
  };
  settings.keep_ports = [host_management = &impl_->host_management_](std::shared_ptr<VmPortMap> ports) {
    host_management->SetPrecreatedPorts(std::move(ports));
  };
  return std::make_unique<VnicMigrationTask>(impl_->host_config_, std::move(settings), vm_ports, knl_pnic);
}

}  // namespace zem::zema
