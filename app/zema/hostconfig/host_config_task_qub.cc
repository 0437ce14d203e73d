#include "app/zema/hostconfig/host_config_task_qub.h"

#include <algorithm>
#include <atomic>
#include <set>

#include "app/zema/covedb/config_files.h"
#include "app/zema/covedb/covedb_handler.h"
#include "app/zema/hostconfig/follow_up_tasks.h"
#include "app/zema/hostconfig/host_config_context.h"
#include "app/zema/hostconfig/host_config_timeline.h"
#include "app/zema/hostconfig/host_switch_preparation.h"
#include "app/zema/hostconfig/port_opaque_data.h"
#include "app/zema/hostconfig/router_reconnection.h"
#include "app/zema/hostlib/config_ops_manager.h"
#include "app/zema/hostlib/endpoint_library.h"
#include "app/zema/hostswitch/dvs_configuration.h"
#include "app/zema/hostswitch/host_switch_application.h"
#include "app/zema/hostswitch/host_switch_commands.h"
#include "app/zema/hostswitch/library_settings.h"
#include "app/zema/migration/interface_migration.h"
#include "app/zema/migration/migration_file.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/state/health_record.h"
#include "app/zema/state/host_config_state.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "framework/tasks/task_thread.h"
#include "platform/core/thread_name.h"
#include "platform/timeline/step.h"
#include "proto/covedb/switching_objects.pb.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kThreadName = "zema:HstCfg";
constexpr int kAddressRetries = 20;

// The state that a configuration changes before it is stored.  If the configuration is refused before that
// point, the state is restored, so that the next configuration starts from the same state; it writes the id
// into the controllers' file again.
class StateBeforeStored {
 public:
  explicit StateBeforeStored(HostConfigContext& context)
      : context_(context),
        had_id_(context.host.id().has_value()),
        down_(context.health.status_down()),
        first_iteration_(context.state.first_iteration_post_upgrade),
        kln_follows_health_(context.state.kln_follows_health) {}
  ~StateBeforeStored() {
    if (kept_) return;
    if (!had_id_) context_.host.UnsetHostId();
    if (context_.health.status_down() != down_) {
      down_ ? context_.health.setZemaStatusDown() : context_.health.setZemaStatusUp();
    }
    context_.state.first_iteration_post_upgrade = first_iteration_;
    context_.state.kln_follows_health = kln_follows_health_;
  }
  StateBeforeStored(const StateBeforeStored&) = delete;
  StateBeforeStored& operator=(const StateBeforeStored&) = delete;

  void Keep() { kept_ = true; }

 private:
  HostConfigContext& context_;
  const bool had_id_;
  const bool down_;
  const bool first_iteration_;
  const bool kln_follows_health_;
  bool kept_ = false;
};

}  // namespace

HostConfigTaskQub::HostConfigTaskQub(std::shared_ptr<HostConfigContext> context, MpaMessageSender* sender,
                                     std::string correlation_id, std::string reply_to, HostConfigMsg message,
                                     InStore in_store, std::string header)
    : HostConfigTask(sender, std::move(correlation_id), std::move(reply_to), std::move(message)),
      context_(std::move(context)),
      in_store_(in_store),
      header_(std::move(header)) {}

HostConfigTaskQub::~HostConfigTaskQub() = default;

void HostConfigTaskQub::Run() {
  HostConfigTask::Run();
  SetThreadName(kThreadName);
  context_->ports.zones().CacheTzToDvsMapping();
  ScheduleFollowUps();
}

void HostConfigTaskQub::ScheduleFollowUps() {
  const FollowUpTasks::Origin origin{correlation_id_, reply_to_, message_.id(), message_.transport_node_id(),
                                     message_.revision()};
  context_->follow_ups.BeginConfiguration();
  if (!vteps_.dhcp_devices.empty()) {
    context_->follow_ups.FetchAddresses(origin, vteps_.dhcp_devices, kAddressRetries);
  }
  if (!vteps_.ipv6_kinds.empty()) {
    context_->follow_ups.FetchIpv6Addresses(origin, vteps_.ipv6_kinds, kAddressRetries);
  }
  if (hot_swap_) {
    context_->follow_ups.HotSwapUnusedCkln(options_.ckln_hot_swap_init_delay,
                                           options_.ckln_hot_swap_retry_interval);
  }
}

HostConfigTask::HostConfigMsg HostConfigTaskQub::BuildReply() {
  endpoint_ids_ = vteps_.endpoint_ids;
  HostConfigMsg reply = HostConfigTask::BuildReply();
  // The answer waits for the host management daemon because its reader may ask for ports at once.
  if (sender_ != nullptr && errors_.code() == 0 && message_.host_switches_size() > 0) {
    context_->follow_ups.WaitForHostManagement(options_.vif_operation_timeout);
  }
  return reply;
}

void HostConfigTaskQub::ApplyHostConfig(bool upgrade, bool reset) {
  ZLOG_INFO(" In %s with upgradeCase : %d, reset : %d \n", __func__, upgrade, reset);
  bool extra_config = false;
  const bool first = !context_->host.id();
  StateBeforeStored before(*context_);
  {
    const MonitorLock lock(monitor_);
    if (context_->store != nullptr && in_store_ == InStore::kYes) {
      for_store_ = StoreWriter::EncodeHostConfig(message_);
    }
    TakeHealth();
    if (!IsRemoval() && !reset) {
      HostSwitchPreparation preparation(*context_);
      if (first) {
        preparation.PrepareFirst(&message_);
      } else {
        extra_config = !upgrade;
        ZLOG_INFO("[%s] apply extra-config on discovered ports: %s", __func__,
                  extra_config ? "true" : "false");
        preparation.PrepareNext(&message_);
      }
    }
    if (upgrade) context_->state.first_iteration_post_upgrade = true;
    options_ = context_->options.Snapshot();
  }
  if (!PreCheck(first, upgrade, reset)) return;
  const MonitorLock lock(monitor_);
  if (!ConvertDvsUuidsAndPopulateKnlMigrationMap(&message_, &migration_map_, errors_)) return;
  if (const timeline::OperationPtr operation = timeline::Current()) {
    // The lists of the node's switches show the host's form of their ids.
    for (const auto& host_switch : message_.host_switches()) operation->AddKey(host_switch.id());
  }
  Switches switches = Switches::kNotReached;
  {
    InterfaceMigration check(context_->lum, errors_, context_->migration, {});
    if (!check.ValidateHostConfigMsgForMigration(reset)) return;
  }
  before.Keep();
  CreateGuestLaneInterface();
  // The current record may lack a switch that was known to the earlier process.
  routers_before_.merge(RouterMacTexts(context_->health.dvs_vdr_macs()));
  // If the mark cannot be written, the configuration file cannot be written either, and that error is
  // reported.
  mark_ = Mark(reset);
  context_->files.apply_mark().Begin(mark_);
  Persist();
  switches = ConfigureSwitches(upgrade, reset, extra_config);
  if (switches != Switches::kFailed) {
    HostSwitchCommands commands(context_->lum, errors_);
    // UpdateTnIdToCorvd has added its error to errors_.
    static_cast<void>(commands.UpdateTnIdToCorvd(message_.transport_node_id()));
  }
  if (!migration_request_.empty()) SaveMigrationOutcome();
  // When an earlier process's work is being finished, no answer reports a failure: the mark stays, so that
  // the work is tried again.
  if (!finishing_ || errors_.code() == 0) EndApply();
  context_->follow_ups.Applied(message_);
}

void HostConfigTaskQub::TakeHealth() {
  if (message_.zem_down()) {
    ZLOG_INFO("Updating zema health to DOWN as per zem_down = %d", message_.zem_down());
    context_->health.setZemaStatusDown();
  } else {
    ZLOG_INFO("Updating zema health to UP");
    context_->health.setZemaStatusUp();
  }
}

bool HostConfigTaskQub::PreCheck(bool first, bool upgrade, bool reset) {
  if (!options_.pre_check_health) return true;
  ZLOG_INFO("[%s] Running health pre-checks.", __func__);
  if (!context_->health.lum_ready()) {
    ZLOG_ERROR("42019", "[%s] ZEMA Lum not ready", __func__);
    errors_.Add(ErrorSink::kGeneral, "ZEMA Lum not ready");
    return false;
  }
  if (!first || reset || upgrade || IsRemoval()) return true;
  std::string reply;
  if (context_->lum.InvokeRPC(LumOperation::kInstallPreCheck, message_.SerializeAsString(), &reply) ==
      LumCommands::kRpcSucceeded) {
    return true;
  }
  ZLOG_ERROR("42083", "[%s] %s", __func__, reply.c_str());
  errors_.Add(
      ErrorSink::kGeneral,
      "Cannot perform install due to an existing VM on the host. Please put QUB in the maintenance mode "
      "and retry.");
  return false;
}

void HostConfigTaskQub::CreateGuestLaneInterface() {
  ZLOG_INFO("[%s] create GuestLane interface.", __func__);
  if (options_.guest_lane_device_name.empty()) return;
  HostSwitchCommands commands(context_->lum, errors_);
  // AddGuestLaneInterface has added its error to errors_.
  static_cast<void>(commands.AddGuestLaneInterface(options_.guest_lane_device_name, options_.guest_lane_ip,
                                                   options_.guest_lane_netmask));
}

UnfinishedApply HostConfigTaskQub::Mark(bool reset) const {
  using Kind = UnfinishedApply::Kind;
  UnfinishedApply mark;
  if (reset) {
    mark.kind = Kind::kReset;
  } else if (!message_.has_transport_node_id()) {
    // The node's configuration file is removed before its switches are.
    mark.kind = Kind::kRemoval;
    mark.message = message_.SerializeAsString();
  } else if (!migration_request_.empty()) {
    // The tool does not request the migration again, so the mark holds the message: an interruption before
    // the message is stored must not lose the request.
    mark.message = message_.SerializeAsString();
  }
  mark.header = header_;
  mark.correlation_id = correlation_id_;
  mark.reply_to = reply_to_;
  mark.routers_before = routers_before_;
  mark.leaving_vifs = left_before_;
  mark.migration_request = migration_request_;
  mark.migration_result_file = migration_result_file_;
  return mark;
}

// Saves the interfaces' outcome alone: only the process that began the configuration knew the outcome of the
// file with the VMs, and their ports were lost with that process.
void HostConfigTaskQub::SaveMigrationOutcome() {
  MigrationResult result;
  ReadMigrationResult(migration_result_file_, &result);
  result.request_id = migration_request_;
  const std::vector<std::string> errors = ErrorTexts();
  result.succeeded = errors.empty();
  SaveMigrationResult(migration_result_file_, result, errors);
}

std::vector<std::string> HostConfigTaskQub::ErrorTexts() const {
  std::vector<std::string> texts = errors_.texts();
  if (texts.empty() && errors_.code() != 0) texts.push_back("ErrorCode=" + std::to_string(errors_.code()));
  return texts;
}

bool HostConfigTaskQub::Finish(const UnfinishedApply& unfinished) {
  finishing_ = true;
  routers_before_ = unfinished.routers_before;
  left_before_ = unfinished.leaving_vifs;
  migration_request_ = unfinished.migration_request;
  migration_result_file_ = unfinished.migration_result_file;
  ApplyHostConfig(false, unfinished.kind == UnfinishedApply::Kind::kReset);
  const HostConfigMsg outcome = BuildReply();
  if (outcome.error_code() != 0) {
    ZLOG_ERROR("41531", "[%s] ApplyHostConfig error, Error: %s", __func__, outcome.error_text().c_str());
    if (!migration_request_.empty()) SaveMigrationOutcome();
    return false;
  }
  ScheduleFollowUps();
  return true;
}

void HostConfigTaskQub::Persist() {
  if (context_->files.PersistHostConfigToFile(message_) != 0) {
    errors_.Add(ErrorSink::kGeneral, "Failed to persist host config.");
  }
  if (context_->store != nullptr && in_store_ == InStore::kYes) {
    if (for_store_ != nullptr) {
      context_->store->writer().SaveHostConfig(std::move(*for_store_), header_);
      for_store_.reset();
    } else {
      ZLOG_ERROR("44092", "Error persisting configuration Messages to DB");
    }
  }
  if (message_.has_transport_node_id()) {
    context_->host.SetHostId(message_.transport_node_id());
    context_->follow_ups.UpdateTnUuidInFile(message_.transport_node_id());
    context_->state.del_zem_running = false;
    // A node that was removed and is added again over the same registration gets no other signal to monitor
    // the store.
    if (context_->store != nullptr) context_->store->ResumeMonitors();
  } else {
    RemoveNode();
  }
}

// Ends the mark of a removal when both the host and the store have removed the node.  Without the mark, a
// start would apply what the store still holds to the host.
class HostConfigTaskQub::RemovalEnd {
 public:
  explicit RemovalEnd(const std::shared_ptr<HostConfigContext>& context) : context_(context) {}

  void OfHost(uint64_t number) {
    number_ = number;
    OneOfTwo();
  }
  void OfStore() { OneOfTwo(); }

 private:
  void OneOfTwo() {
    if (--left_ != 0) return;
    const auto live = context_.lock();
    if (!live) return;
    live->follow_ups.RunBehind([context = context_, number = number_] {
      if (const auto still = context.lock()) still->files.apply_mark().End(number);
    });
  }

  const std::weak_ptr<HostConfigContext> context_;
  uint64_t number_ = 0;
  std::atomic<int> left_ = 2;
};

void HostConfigTaskQub::EndApply() {
  if (removal_end_ == nullptr) return context_->files.apply_mark().End();
  removal_end_->OfHost(context_->files.apply_mark().number());
}

void HostConfigTaskQub::RemoveNode() {
  if (context_->store != nullptr) {
    removal_end_ = std::make_shared<RemovalEnd>(context_);
    context_->store->FlushDesiredConfig([end = removal_end_] { end->OfStore(); });
  }
  switching::LogicalSwitchBulkMsg none;
  none.set_continuation_flag(0);
  const std::string data = none.SerializeAsString();
  std::string reply;
  if (context_->lum.InvokeRPC(LumOperation::kApplyLogicalSwitches, data, &reply) !=
      LumCommands::kRpcSucceeded) {
    ZLOG_ERROR("42033", "Data : %s, ErrorStr : %s", none.ShortDebugString().c_str(), reply.c_str());
    errors_.Add(ErrorSink::kGeneral, reply);
    return;
  }
  ZLOG_INFO("Cleared all Opaque LogicalSwitches during TN delete");
  context_->host.UnsetHostId();
  context_->follow_ups.LeaveMaintenance();
  if (context_->files.DeleteConfigFiles() != 0) {
    errors_.Add(ErrorSink::kGeneral, "Failed to delete the stored configuration.");
  }
}

HostConfigTaskQub::Switches HostConfigTaskQub::ConfigureSwitches(bool upgrade, bool reset,
                                                                 bool extra_config) {
  if (!CheckQUBiVersion70AndUnusedCkln(context_->lum, errors_)) return Switches::kNotReached;
  StatelessHost stateless;
  if (!CheckStatelessQubRebootFlags(context_->lum, message_.is_mp_host_profile_enabled(), &stateless,
                                    errors_)) {
    return Switches::kNotReached;
  }
  InterfaceMigrationSettings settings = MigrationSettings(context_->ports, options_);
  // One operation on ports at a time.
  const auto under_port_lock = [this](auto operation) {
    return [this, operation = std::move(operation)](const auto&... arguments) {
      const Synchronizer lock(context_->port_lock, __FILE__, __LINE__);
      return operation(arguments...);
    };
  };
  settings.create_port = under_port_lock(std::move(settings.create_port));
  settings.leave_port = under_port_lock(std::move(settings.leave_port));
  settings.leave_ports = under_port_lock(std::move(settings.leave_ports));
  settings.leaving = [this](const std::vector<std::string>& vifs) {
    std::set<std::string> all(mark_.leaving_vifs.begin(), mark_.leaving_vifs.end());
    all.insert(vifs.begin(), vifs.end());
    mark_.leaving_vifs.assign(all.begin(), all.end());
    // If the mark cannot be written, the VIFs are left on their ports, but only if this process ends now.
    static_cast<void>(context_->files.apply_mark().Begin(mark_));
  };
  settings.left_before = left_before_;
  settings.set_del_zem_running = [this](bool on) { context_->state.del_zem_running = on; };
  settings.flush_desired_config = [this] {
    if (context_->store != nullptr) context_->store->FlushDesiredConfig();
  };
  InterfaceMigration migration(context_->lum, errors_, context_->migration, std::move(settings));
  // A removal requested by the host itself has no moves of its own, but resources that must be saved first.
  if ((reset || !IsSecurityOnlyMigration(message_)) &&
      !migration.PrepareAndMigrate(&message_, &migration_map_, &stateless.migrate_nvs_knls, reset)) {
    return Switches::kNotReached;
  }
  std::vector<HostDvs> existing;
  if (!ReadSwitches(reset, &existing)) return Switches::kNotReached;
  LeavingSwitches leaving(*context_, errors_);
  leaving.ClearTeaming(message_, existing);
  RouterReconnection routers(*context_, errors_);
  routers.ReadTeaming(existing);
  if (leaving.DisconnectVdrPortsAndResetHostSwitches(message_, reset, upgrade, existing, routers_before_,
                                                     &hot_swap_)) {
    return Switches::kNotReached;
  }
  const bool configured = ConfigureDvses(upgrade, migration, stateless);
  if (configured) {
    if (extra_config) ApplyOpaqueDataOnPorts(*context_, message_, errors_);
    ForgiveRoutersOfLeft(existing);
  }
  if (!reset && !IsRemoval()) {
    routers.ReconnectVdrPorts(message_, routers_before_, upgrade);
  } else {
    ZLOG_INFO("Skipping ReconnectVdrPorts()...reason, TN Delete case %d, del zem cli case %d", IsRemoval(),
              reset);
    context_->health.setDvsNameVdrMacs({});
  }
  return configured ? Switches::kConfigured : Switches::kFailed;
}

bool HostConfigTaskQub::ConfigureDvses(bool upgrade, InterfaceMigration& migration,
                                       const StatelessHost& stateless) {
  MigratedPnics migrated = MigratedPnicsOf(migration_map_);
  HostSwitchApplicationSettings application_settings = ApplicationSettings(
      context_->ports.zones(), context_->switches, context_->endpoints, options_, upgrade);
  application_settings.allow_resync = [this](bool allowed) { context_->follow_ups.AllowResync(allowed); };
  application_settings.schedule_high_performance = [this] {
    context_->follow_ups.ApplyHighPerformanceProfile();
  };
  HostSwitchApplication application(context_->lum, errors_, migration, context_->endpoints,
                                    context_->high_performance, std::move(application_settings));
  DvsConfigurationSettings settings;
  settings.stateless = stateless.process_network_plugin;
  settings.migrate_nvs_knls = stateless.migrate_nvs_knls;
  settings.ready_timeout = std::chrono::seconds(options_.dvs_ready_poll_timeout);
  settings.pause = context_->pause;
  settings.apply = [&](const std::vector<std::string>& records) {
    return application.InvokeApplyHostSwitch(records, &message_, migration_map_, migrated, vteps_);
  };
  DvsConfiguration configuration(context_->lum, errors_, std::move(settings));
  const bool configured = configuration.ConfigureDvses(message_, &migrated) == 0;
  context_->ports.holders().ForgetVifIndex();
  return configured;
}

bool HostConfigTaskQub::ReadSwitches(bool reset, std::vector<HostDvs>* switches) {
  std::string error;
  auto found = GetDvsUuids(context_->lum, reset, DvsStatus(context_->switches), &error);
  if (!found) {
    errors_.Add(ErrorSink::kGeneral, error);
    return false;
  }
  *switches = std::move(*found);
  return true;
}

// Removes the errors of router ports that could not be disconnected but have gone together with their
// switches.
void HostConfigTaskQub::ForgiveRoutersOfLeft(const std::vector<HostDvs>& before) {
  if (errors_.texts().empty()) return;
  std::string error;
  const auto now = GetDvsUuids(context_->lum, true, DvsStatus(context_->switches), &error);
  if (!now) {
    ZLOG_ERROR("42009", "[%s] %s", __func__, error.c_str());
    return;
  }
  const bool left = std::any_of(before.begin(), before.end(), [&](const HostDvs& dvs) {
    return std::none_of(now->begin(), now->end(), [&](const HostDvs& there) { return there.id == dvs.id; });
  });
  if (left) {
    errors_.RemoveTextsWith("vdr port disconnect for host switch [", [](const std::string& text) {
      ZLOG_INFO("HostSwitch delete/hotswap successful, Removing benign DisconnectVdrPort error %s",
                text.c_str());
    });
  }
  if (errors_.ForgiveRouterPort()) {
    ZLOG_INFO("Clearing EC_HOST_CFG_VDR_ERRO and setting errorCode as EC_SUCCESS");
  }
}

std::string RemoveHostSwitches(const std::shared_ptr<HostConfigContext>& context) {
  ZLOG_INFO("[%s] clearing HostConfig...\n", "REST_RemoveHostSwitch");
  const timeline::OperationPtr operation =
      timeline::Begin(timeline::Kind::kHostConfig, "reset: removal of the host's switches", {"reset"});
  const timeline::Scope scope(operation);
  HostConfigTaskQub task(context, nullptr, "", "", {}, HostConfigTaskQub::InStore::kNo, "");
  task.ApplyHostConfig(false, true);
  const auto reply = task.BuildReply();
  timeline::Finish(operation, reply.error_text());
  if (reply.error_code() == 0) return "";
  ZLOG_ERROR("41531", "[%s] ApplyHostConfig error, Error: %s", "REST_RemoveHostSwitch",
             reply.error_text().c_str());
  return reply.error_text();
}

namespace {

constexpr Duration kFirstFinishDelay = std::chrono::seconds(30);
constexpr Duration kLastFinishDelay = std::chrono::minutes(10);

// Returns true when nothing is left to be finished.
bool TryToFinish(const std::shared_ptr<HostConfigContext>& context) {
  using Kind = UnfinishedApply::Kind;
  const auto unfinished = context->files.apply_mark().Unfinished();
  if (!unfinished) return true;
  switching::HostConfigMsg message;
  const bool read = message.ParseFromString(unfinished->message);
  // The store holds what the manager sent, but nothing that the host asked for.
  bool in_store = !unfinished->message.empty();
  if (unfinished->kind == Kind::kConfiguration) {
    in_store = unfinished->migration_request.empty();
    std::string error;
    if ((!read || !message.has_transport_node_id()) &&
        !context->files.RetrieveHostConfigMsgFromFile(&message, &error)) {
      ZLOG_ERROR("41531", "[%s] the configuration that was under way cannot be finished: %s", __func__,
                 error.c_str());
      context->files.apply_mark().End();
      return true;
    }
    ZLOG_INFO("[%s] HostConfigMsg [%s] revision [%s] was under way when the agent ended, applying it again",
              __func__, message.id().c_str(), message.revision().c_str());
  } else {
    if (!read) ZLOG_WARN("[%s] the message of the removal is lost", __func__);
    ZLOG_INFO("[%s] the removal of this node was under way when the agent ended, finishing it", __func__);
  }
  const timeline::OperationPtr operation =
      BeginHostConfig(message, "what was under way when the agent ended, revision " + message.revision());
  const timeline::Scope scope(operation);
  HostConfigTaskQub task(
      context, nullptr, unfinished->correlation_id, unfinished->reply_to, std::move(message),
      in_store ? HostConfigTaskQub::InStore::kYes : HostConfigTaskQub::InStore::kNo, unfinished->header);
  try {
    const bool finished = task.Finish(*unfinished);
    timeline::Finish(operation, task.ErrorText());
    return finished;
  } catch (const std::exception& e) {
    timeline::Finish(operation, e.what());
    ZLOG_ERROR("41531", "[%s] ApplyHostConfig caught exception: %s", __func__, e.what());
    return false;
  }
}

void FinishWithin(const std::shared_ptr<HostConfigContext>& context, Duration next_delay) {
  if (TryToFinish(context)) return;
  context->files.apply_mark().SetNotInForce();
  ZLOG_INFO("[%s] what was under way is tried again in [%ld] seconds", __func__,
            static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(next_delay).count()));
  context->follow_ups.RunLater(next_delay, [weak = std::weak_ptr<HostConfigContext>(context), next_delay] {
    const auto live = weak.lock();
    // A newer configuration has been applied in the meantime, or was refused and its error sent to the
    // manager.
    if (!live || !live->files.apply_mark().not_in_force()) return;
    FinishWithin(live, std::min(2 * next_delay, kLastFinishDelay));
  });
}

}  // namespace

void FinishHostConfig(const std::shared_ptr<HostConfigContext>& context) {
  FinishWithin(context, kFirstFinishDelay);
}

void UpdateCacheMap(HostConfigContext& context) {
  switching::HostConfigMsg stored;
  std::string error;
  if (!context.files.HasHostConfigFile() || !context.files.RetrieveHostConfigMsgFromFile(&stored, &error)) {
    ZLOG_DEBUG("No host config of an earlier run: %s", error.c_str());
    return;
  }
  if (stored.has_transport_node_id()) context.host.SetHostId(stored.transport_node_id());
  context.health.setDvsNameVdrMacs(RouterMacsOfHealth(stored));
  if (stored.zem_down()) {
    ZLOG_INFO("Updating zema health to down as oldHostConfigMsg.zema_down is true");
    context.health.setZemaStatusDown();
  } else {
    context.health.setZemaStatusUp();
  }
}

}  // namespace zem::zema
